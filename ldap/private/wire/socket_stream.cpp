#include "ldap/private/wire/socket_stream.h"

#include <ldap/private/wire/connection.h>
#include <tavo_utils/system_error.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace tavo::ldap {

namespace {

/// Every request begins with the tag of a sequence (RFC 4511, section 4.1.1); no record of TLS does.
constexpr char kRequestTag = 0x30;

/// How long a call on a non-blocking socket waits, in milliseconds. The client library tries a TLS handshake
/// again and again while `NETWORK_TIMEOUT` is set, older ones (2.5) without waiting.
constexpr int kPatience = 100;

bool wouldBlock() noexcept { return errno == EAGAIN || errno == EWOULDBLOCK; }

/// The client library asks twice before it reads.
constexpr int kMostOffers = 8;

} // namespace

SocketStream::SocketStream(bool isEncrypted, std::shared_ptr<Connection> connection)
    : m_isEncrypted(isEncrypted)
    , m_connection(std::move(connection))
{}

SocketStream::~SocketStream()
{
    // Newer client libraries (2.6.10) free the layers of a failed handshake before they close the socket.
    if (m_connection) {
        m_connection->disown();
    }
}

ssize_t SocketStream::read(int socket, char* to, std::size_t size) noexcept
{
    m_offers = 0;
    if (!hasBytes() && size >= kCapacity) {
        return receive(socket, to, size);
    }
    if (!hasBytes()) {
        if (!m_buffer) {
            m_buffer.reset(new (std::nothrow) std::array<char, kCapacity>);
        }
        if (!m_buffer) {
            return receive(socket, to, size);
        }
        const ssize_t count = receive(socket, m_buffer->data(), kCapacity);
        if (count <= 0) {
            return count;
        }
        m_begin = 0;
        m_end = static_cast<std::size_t>(count);
    }
    const std::size_t count = std::min(size, m_end - m_begin);
    std::memcpy(to, m_buffer->data() + m_begin, count);
    m_begin += count;
    return static_cast<ssize_t>(count);
}

ssize_t SocketStream::write(int socket, std::string_view bytes) noexcept
{
    const bool isRequest = m_unwritten != 0 || bytes.empty() || bytes.front() == kRequestTag;
    if (!m_isEncrypted && !isRequest) {
        if (!mayStartTls(socket)) {
            errno = EPROTO;
            return -1;
        }
        m_isEncrypted = true;
        if (m_connection) {
            m_connection->handshakeBegins();
        }
    }
    const ssize_t count = transmit(socket, bytes);
    if (count >= 0) {
        m_unwritten = bytes.size() - static_cast<std::size_t>(count);
    }
    return count;
}

SocketStream::Readiness SocketStream::readiness() noexcept
{
    if (!hasBytes()) {
        // Now the client library waits for the socket itself.
        if (m_connection) {
            m_connection->aboutToRead();
        }
        return Readiness::nothing;
    }
    if (++m_offers <= kMostOffers) {
        return Readiness::bytes;
    }
    reset();
    return Readiness::abandoned;
}

/// \return false with the `errno` that the caller then has
bool SocketStream::isReadySoon(int socket, short events) noexcept
{
    m_hasWaited = !m_hasWaited;
    if (!m_hasWaited) {
        return false;
    }
    const int wouldBlock = errno;
    pollfd waiting{socket, events, 0};
    const int count = poll(&waiting, 1, kPatience);
    if (count >= 0) {
        // The client library looks at it after good calls, too.
        errno = count == 0 ? wouldBlock : 0;
    }
    return count > 0;
}

ssize_t SocketStream::receive(int socket, char* to, std::size_t size) noexcept
{
    if (m_connection) {
        return m_connection->receive(socket, to, size);
    }
    ssize_t count = recv(socket, to, size, 0);
    if (count < 0 && wouldBlock() && isReadySoon(socket, POLLIN)) {
        count = recv(socket, to, size, 0);
    }
    return count;
}

ssize_t SocketStream::transmit(int socket, std::string_view bytes) noexcept
{
    if (m_connection) {
        return m_connection->send(socket, bytes);
    }
    ssize_t count = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0 && wouldBlock() && isReadySoon(socket, POLLOUT)) {
        count = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    return count;
}

bool SocketStream::mayStartTls(int socket) const noexcept
{
    const utils::SystemErrorKeeper keepSystemError;
    char next = 0;
    return !hasBytes() && recv(socket, &next, 1, MSG_PEEK | MSG_DONTWAIT) <= 0;
}

void SocketStream::reset() noexcept
{
    m_begin = 0;
    m_end = 0;
    m_unwritten = 0;
    m_isEncrypted = false;
    m_hasWaited = false;
    m_offers = 0;
}

void SocketStream::close(int socket) noexcept
{
    if (!m_connection || !m_connection->close(socket)) {
        // The connection ends now, also if a forked child has the socket, too.
        shutdown(socket, SHUT_RDWR);
        ::close(socket);
    }
}

} // namespace tavo::ldap
