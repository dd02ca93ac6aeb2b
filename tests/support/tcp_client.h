#pragma once

#include "support/event_loop.h"
#include "support/ldap_messages.h"

#include <cstdint>

namespace tavo::test {

/// A TCP client of 127.0.0.1 that knows nothing of LDAP. Its calls block, and give up after `kDeadline`.
class TcpClient
{
public:
    explicit TcpClient(std::uint16_t port);

    /// The `errno` of the attempt to connect; 0 when connected.
    int connectError() const { return m_connectError; }

    /// Throws `std::system_error` when not all of it can be sent.
    void send(const Bytes& bytes) const;

    /// One read: what has come, "" at the end, "(reset)" after a reset.
    Bytes receive() const;

    /// So many bytes, or what there is until the end.
    Bytes receive(std::size_t count) const;

    bool nothingToRead() const;

    /// Ends this client's direction.
    void shutDown() const;

private:
    FileDescriptor m_socket;
    int m_connectError;
};

} // namespace tavo::test
