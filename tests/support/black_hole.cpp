#include "black_hole.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tavo::test {

BlackHole::BlackHole()
    : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    , m_first(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    // A queue for none holds one.
    if (m_listener < 0 || m_first < 0 || bind(m_listener, generic, size) != 0 || listen(m_listener, 0) != 0 ||
        getsockname(m_listener, generic, &size) != 0 || connect(m_first, generic, size) != 0) {
        const int error = errno;
        close(m_first);
        close(m_listener);
        throw std::system_error(error, std::generic_category(), "cannot make a black hole of 127.0.0.1");
    }
    m_port = ntohs(address.sin_port);
}

BlackHole::~BlackHole()
{
    close(m_first);
    close(m_listener);
}

std::string BlackHole::url(const std::string& scheme) const
{
    return scheme + "://127.0.0.1:" + std::to_string(m_port);
}

} // namespace tavo::test
