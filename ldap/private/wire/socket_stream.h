#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>

namespace tavo::ldap {

class Connection;

/// The bytes of one connection, as they pass its socket: reads ahead, and writes without raising SIGPIPE.
///
/// The client library asks for a message in two reads of a few bytes. Below TLS they are read in large pieces;
/// the piece is handed on as it is asked for.
///
/// Not thread-safe.
class SocketStream
{
public:
    /// \param isEncrypted whether TLS has begun
    /// \param connection whose socket it is, if it has options; its time limits are kept then, whether the socket
    ///        is blocking or not
    explicit SocketStream(bool isEncrypted = false, std::shared_ptr<Connection> connection = {});
    ~SocketStream();
    SocketStream(const SocketStream&) = delete;
    SocketStream& operator=(const SocketStream&) = delete;

    /// Like read(2): waits for the first byte, for a non-blocking socket a while only. A call that waited has
    /// the next one not wait, so that its caller can look at the time.
    /// \return the number of bytes, 0 at the end of the stream; below 0 with `errno`
    ssize_t read(int socket, char* to, std::size_t size) noexcept;

    /// Like write(2). The first bytes of a TLS handshake are refused (`EPROTO`) when the server has already
    /// sent some: they came in the clear, and a man in the middle may have put them there.
    /// \return the number of bytes, which may be less than `bytes` has; below 0 with `errno`
    ssize_t write(int socket, std::string_view bytes) noexcept;

    /// Whether the next read has bytes without asking the socket.
    bool hasBytes() const noexcept { return m_begin != m_end; }

    /// The same, for a caller that reads then. When it has asked several times and read nothing, it never will:
    /// the connection has failed, and it would ask for ever. What has been read ahead is dropped, once.
    enum class Readiness
    {
        nothing,
        bytes,
        abandoned
    };
    Readiness readiness() noexcept;

    /// The connection has ended: what has been read ahead is dropped, and the next one begins.
    void reset() noexcept;

    /// Closes the socket. Never blocks.
    void close(int socket) noexcept;

private:
    static constexpr std::size_t kCapacity = std::size_t{64} * 1024;

    bool mayStartTls(int socket) const noexcept;
    bool isReadySoon(int socket, short events) noexcept;
    ssize_t receive(int socket, char* to, std::size_t size) noexcept;
    ssize_t transmit(int socket, std::string_view bytes) noexcept;

    /// None before the first byte is read.
    std::unique_ptr<std::array<char, kCapacity>> m_buffer;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    /// What is left of the request that is being written.
    std::size_t m_unwritten = 0;
    bool m_isEncrypted;
    bool m_hasWaited = false;
    /// How often `readiness` has said that there are bytes since the last read.
    int m_offers = 0;
    std::shared_ptr<Connection> m_connection;
};

} // namespace tavo::ldap
