#pragma once

#include <cstdint>
#include <string>

namespace tavo::test {

/// A TCP port of 127.0.0.1 that belongs to this object for as long as it lives. A server that sets
/// SO_REUSEADDR (as practically all do) can listen on it; nobody else is given it by the kernel, so there is
/// no moment in which another test could take it, and while no server listens there, connections are refused
/// for certain.
class ReservedPort
{
public:
    /// Throws std::system_error when there is no port to be had.
    ReservedPort();
    ~ReservedPort();
    ReservedPort(const ReservedPort&) = delete;
    ReservedPort& operator=(const ReservedPort&) = delete;

    std::uint16_t number() const { return m_number; }

private:
    int m_socket;
    std::uint16_t m_number = 0;
};

/// Whether something accepts connections on that port of that loopback address right now.
bool isListening(std::uint16_t port, const std::string& address = "127.0.0.1");

} // namespace tavo::test
