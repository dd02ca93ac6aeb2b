#include "support/tcp_client.h"

#include "support/gate.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace tavo::test {

TcpClient::TcpClient(std::uint16_t port)
    : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    const timeval deadline{kDeadline.count(), 0};
    ::setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
    ::setsockopt(m_socket.get(), SOL_SOCKET, SO_SNDTIMEO, &deadline, sizeof deadline);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int failed = ::connect(m_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    m_connectError = failed ? errno : 0;
}

void TcpClient::send(const Bytes& bytes) const
{
    if (::send(m_socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(bytes.size()))
        throwErrno("send");
}

Bytes TcpClient::receive() const
{
    std::array<char, 65536> buffer;
    const ssize_t count = ::recv(m_socket.get(), buffer.data(), buffer.size(), 0);
    if (count < 0 && errno != ECONNRESET)
        throwErrno("recv");
    return count < 0 ? Bytes("(reset)") : Bytes(buffer.data(), static_cast<std::size_t>(count));
}

Bytes TcpClient::receive(std::size_t count) const
{
    Bytes received(count, '\0');
    const ssize_t length = ::recv(m_socket.get(), received.data(), count, MSG_WAITALL);
    received.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    return received;
}

bool TcpClient::nothingToRead() const
{
    pollfd poll{.fd = m_socket.get(), .events = POLLIN, .revents = 0};
    return ::poll(&poll, 1, 0) == 0;
}

void TcpClient::shutDown() const { ::shutdown(m_socket.get(), SHUT_WR); }

} // namespace tavo::test
