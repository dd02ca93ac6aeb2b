#pragma once

#include <cstdint>
#include <string>

namespace tavo::test {

/// Reserves a TCP port of 127.0.0.1 for its lifetime. A server that sets SO_REUSEADDR (as practically all do)
/// can listen on it; the kernel assigns it to no other socket, so no other test can take it in between, and
/// connections are certainly refused while no server listens there.
class ReservedPort
{
public:
    /// Throws std::system_error when no port is available.
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
