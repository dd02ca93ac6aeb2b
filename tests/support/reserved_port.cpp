#include "reserved_port.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tavo::test {
namespace {

sockaddr_in loopback(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

} // namespace

ReservedPort::ReservedPort()
    : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    const int on = 1;
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    // Bound but never listening: two sockets may share an address on these terms, and it is marked as taken.
    if (m_socket < 0 || setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        const int error = errno;
        close(m_socket);
        throw std::system_error(error, std::generic_category(), "cannot reserve a port of 127.0.0.1");
    }
    m_number = ntohs(address.sin_port);
}

ReservedPort::~ReservedPort() { close(m_socket); }

bool isListening(std::uint16_t port, const std::string& address)
{
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in server = loopback(port);
    inet_pton(AF_INET, address.c_str(), &server.sin_addr);
    const bool connected = connect(client, reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0;
    close(client);
    return connected;
}

} // namespace tavo::test
