#pragma once

#include <cstdint>
#include <string>

namespace tavo::test {

/// A port of 127.0.0.1 that neither accepts nor refuses a connection, like an address behind a firewall that
/// drops packets. (Its queue of connections is full, so the kernel drops further requests.)
class BlackHole
{
public:
    /// Throws std::system_error when the port can't be set up.
    BlackHole();
    ~BlackHole();
    BlackHole(const BlackHole&) = delete;
    BlackHole& operator=(const BlackHole&) = delete;

    std::string url(const std::string& scheme = "ldap") const;

private:
    int m_listener;
    /// The one that fills the queue.
    int m_first;
    std::uint16_t m_port = 0;
};

} // namespace tavo::test
