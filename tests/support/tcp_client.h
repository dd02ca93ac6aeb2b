#pragma once

#include "support/event_loop.h"
#include "support/ldap_messages.h"

#include <cstdint>

namespace tavo::test {

/// A TCP client of 127.0.0.1 that sends and receives plain bytes. Its calls block, and give up after
/// `kDeadline`.
class TcpClient
{
public:
    explicit TcpClient(std::uint16_t port);

    /// The `errno` of the attempt to connect; 0 when connected.
    int connectError() const { return m_connectError; }

    /// Sends all bytes. Throws `std::system_error` when it can't.
    void send(const Bytes& bytes) const;

    /// One read: the bytes that have arrived, "" at the end of the stream, "(reset)" after a reset.
    Bytes receive() const;

    /// Reads `count` bytes, or fewer when the stream ends before.
    Bytes receive(std::size_t count) const;

    bool nothingToRead() const;

    /// Closes the sending direction.
    void shutDown() const;

private:
    FileDescriptor m_socket;
    int m_connectError;
};

} // namespace tavo::test
