#include "ldap/private/wire/connector.h"

#include <ldap/error.h>
#include <ldap/private/wire/interruption.h>
#include <tavo_utils/scope_guard.h>
#include <tavo_utils/system_error.h>

#include <ldap.h>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

namespace tavo::ldap {

namespace {

using Clock = TimeLimit::Clock;

/// How long an address may be silent before the next one is tried beside it (RFC 8305, section 5).
constexpr Clock::duration kAttemptDelay = std::chrono::milliseconds(250);

/// Shorter where the time would be up before the last address has had its share.
Clock::duration attemptDelay(std::size_t addresses, std::optional<Clock::time_point> deadline)
{
    if (!deadline) {
        return kAttemptDelay;
    }
    const Clock::duration share =
        (*deadline - Clock::now()) / static_cast<int>(std::max<std::size_t>(addresses, 1));
    return std::clamp(share, Clock::duration::zero(), kAttemptDelay);
}

BaseError badUrl(const QString& url, const QString& reason)
{
    BaseError error(LDAP_PARAM_ERROR, QStringLiteral("init"), 0);
    error.connectFailure = {ConnectFailure::Kind::invalidUrl, url, reason};
    return error;
}

BaseError unknownHost(const QByteArray& host, int rc, int systemError)
{
    BaseError error(LDAP_SERVER_DOWN, QStringLiteral("connect"), systemError);
    error.connectFailure = {ConnectFailure::Kind::unknownHost, {},
        QStringLiteral("The name %1 can't be looked up: %2.")
            .arg(QString::fromUtf8(host), QString::fromLocal8Bit(gai_strerror(rc)))};
    return error;
}

QString textOf(const addrinfo& address)
{
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> port{};
    if (getnameinfo(address.ai_addr, address.ai_addrlen, host.data(), host.size(), port.data(), port.size(),
            NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        return {};
    }
    const QString name = QString::fromLatin1(host.data());
    const QString pattern =
        address.ai_family == AF_INET6 ? QStringLiteral("[%1]:%2") : QStringLiteral("%1:%2");
    return pattern.arg(name, QLatin1String(port.data()));
}

SocketAddress localAddress(const QByteArray& path)
{
    SocketAddress address;
    address.text = QString::fromUtf8(path);
    auto& local = reinterpret_cast<sockaddr_un&>(address.storage);
    local.sun_family = AF_UNIX;
    // The client library refuses longer ones, too.
    if (path.size() >= static_cast<qsizetype>(sizeof local.sun_path)) {
        throw BaseError(LDAP_SERVER_DOWN, QStringLiteral("connect"), ENAMETOOLONG);
    }
    std::memcpy(local.sun_path, path.constData(), static_cast<std::size_t>(path.size()));
    address.size = sizeof local;
    return address;
}

/// Does what the client library does with its sockets, with the host's configuration; what can't be set is no
/// failure there either.
void configure(int socket, int family)
{
    if (family == AF_UNIX) {
        return;
    }
    const int on = 1;
    setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    for (const auto& [option, name] :
        {std::pair{LDAP_OPT_X_KEEPALIVE_IDLE, TCP_KEEPIDLE}, {LDAP_OPT_X_KEEPALIVE_PROBES, TCP_KEEPCNT},
            {LDAP_OPT_X_KEEPALIVE_INTERVAL, TCP_KEEPINTVL}, {LDAP_OPT_TCP_USER_TIMEOUT, TCP_USER_TIMEOUT}}) {
        int value = 0;
        if (ldap_get_option(nullptr, option, &value) == LDAP_OPT_SUCCESS && value > 0) {
            setsockopt(socket, IPPROTO_TCP, name, &value, sizeof value);
        }
    }
}

Socket blocking(Socket socket)
{
    const int flags = fcntl(socket.number(), F_GETFL);
    fcntl(socket.number(), F_SETFL, flags & ~O_NONBLOCK);
    return socket;
}

int pollTime(Clock::time_point until)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

} // namespace

Server Server::ofUrl(const QString& url)
{
    LDAPURLDesc* parsed = nullptr;
    const utils::ScopeGuard freeParsed([&] { ldap_free_urldesc(parsed); });
    if (ldap_url_parse(url.toUtf8().constData(), &parsed) != LDAP_URL_SUCCESS) {
        throw badUrl(url, QStringLiteral("the client library can't read the URL"));
    }
    Server server;
    server.host = parsed->lud_host;
    // Of a URL in brackets, or behind "URL:", too.
    const QLatin1String scheme(parsed->lud_scheme);
    server.isLocal = scheme == QLatin1String("ldapi");
    if (server.isLocal && server.host.isEmpty()) {
        throw badUrl(url, QStringLiteral("the URL names no path of a socket, which connection options need"));
    }
    const bool isSecure = scheme == QLatin1String("ldaps");
    const int defaultPort = isSecure ? LDAPS_PORT : LDAP_PORT;
    server.port = QByteArray::number(parsed->lud_port != 0 ? parsed->lud_port : defaultPort);
    return server;
}

std::vector<SocketAddress> Server::addresses() const
{
    if (isLocal) {
        return {localAddress(host)};
    }
    addrinfo hints{};
    hints.ai_flags = AI_ADDRCONFIG;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int rc = getaddrinfo(host.constData(), port.constData(), &hints, &found);
    const int systemError = rc == EAI_SYSTEM ? errno : 0;
    if (rc != 0) {
        throw unknownHost(host, rc, systemError);
    }
    const utils::ScopeGuard freeFound([&] { freeaddrinfo(found); });
    std::vector<SocketAddress> addresses;
    for (const addrinfo* next = found; next != nullptr; next = next->ai_next) {
        SocketAddress& address = addresses.emplace_back();
        std::memcpy(&address.storage, next->ai_addr, next->ai_addrlen);
        address.size = next->ai_addrlen;
        address.text = textOf(*next);
    }
    return addresses;
}

Connector::Connector(std::vector<SocketAddress> addresses, std::optional<Clock::time_point> deadline,
    const Interruption* interruption)
    : m_addresses(std::move(addresses))
    , m_deadline(deadline)
    , m_interruption(interruption)
    , m_attemptDelay(attemptDelay(m_addresses.size(), deadline))
{}

Socket Connector::connect()
{
    m_nextStart = Clock::now();
    for (;;) {
        if (mustStop()) {
            giveUp(m_interruption != nullptr && m_interruption->isInterrupted() ? ECANCELED : ETIMEDOUT);
            return {};
        }
        if (m_next < m_addresses.size() && (m_attempts.empty() || Clock::now() >= m_nextStart)) {
            if (Socket connected = startNext(); connected.number() >= 0) {
                return blocking(std::move(connected));
            }
        } else if (m_attempts.empty()) {
            return {};
        } else {
            wait();
            if (Socket connected = takeFinished(); connected.number() >= 0) {
                return blocking(std::move(connected));
            }
        }
    }
}

bool Connector::mustStop() const
{
    return (m_deadline && Clock::now() >= *m_deadline) ||
           (m_interruption != nullptr && m_interruption->isInterrupted());
}

/// \return the socket if it is connected already
Socket Connector::startNext()
{
    const std::size_t number = m_next++;
    const SocketAddress& address = m_addresses[number];
    const int family = address.storage.ss_family;
    m_nextStart = Clock::now() + m_attemptDelay;
    Socket socket(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (socket.number() >= 0) {
        configure(socket.number(), family);
        const auto* const target = reinterpret_cast<const sockaddr*>(&address.storage);
        if (::connect(socket.number(), target, address.size) == 0) {
            return socket;
        }
        if (errno == EINPROGRESS) {
            m_attempts.push_back({std::move(socket), number});
            return {};
        }
    }
    // A socket of this machine whose backlog is full (EAGAIN) can't be waited for.
    m_tries.push_back({address.text, errno});
    return {};
}

void Connector::wait()
{
    std::vector<pollfd> waiting;
    for (const Attempt& attempt : m_attempts) {
        waiting.push_back({attempt.socket.number(), POLLOUT, 0});
    }
    waiting.push_back({m_interruption != nullptr ? m_interruption->descriptor() : -1, POLLIN, 0});
    int time = -1;
    if (m_next < m_addresses.size()) {
        time = pollTime(m_deadline ? std::min(*m_deadline, m_nextStart) : m_nextStart);
    } else if (m_deadline) {
        time = pollTime(*m_deadline);
    }
    // Whatever it says is looked for in each of them.
    poll(waiting.data(), waiting.size(), time);
}

/// \return a socket that has been connected; those that failed are given up
Socket Connector::takeFinished()
{
    for (auto attempt = m_attempts.begin(); attempt != m_attempts.end();) {
        pollfd state{attempt->socket.number(), POLLOUT, 0};
        if (poll(&state, 1, 0) <= 0) {
            ++attempt;
            continue;
        }
        int systemError = 0;
        socklen_t size = sizeof systemError;
        getsockopt(attempt->socket.number(), SOL_SOCKET, SO_ERROR, &systemError, &size);
        if (systemError == 0) {
            return std::move(attempt->socket);
        }
        m_tries.push_back({m_addresses[attempt->address].text, systemError});
        attempt = m_attempts.erase(attempt);
        m_nextStart = Clock::now();
    }
    return {};
}

void Connector::giveUp(int systemError)
{
    for (const Attempt& attempt : m_attempts) {
        m_tries.push_back({m_addresses[attempt.address].text, systemError});
    }
    m_attempts.clear();
}

} // namespace tavo::ldap
