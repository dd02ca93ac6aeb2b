#pragma once

#include <unistd.h>

#include <utility>

namespace tavo::ldap {

/// Owns the number of a socket.
class Socket
{
public:
    Socket() = default;
    explicit Socket(int number)
        : m_number(number)
    {}
    ~Socket() { reset(); }
    Socket(Socket&& other) noexcept
        : m_number(other.release())
    {}
    Socket& operator=(Socket&& other) noexcept
    {
        reset();
        m_number = other.release();
        return *this;
    }

    /// Below 0 for none.
    int number() const noexcept { return m_number; }
    int release() noexcept { return std::exchange(m_number, -1); }
    void reset() noexcept
    {
        if (m_number >= 0) {
            ::close(release());
        }
    }

private:
    int m_number = -1;
};

} // namespace tavo::ldap
