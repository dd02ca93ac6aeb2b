#include "ldap/private/wire/connection.h"

#include <ldap/error.h>
#include <ldap/search_report.h>
#include <tavo_utils/formatter.h>

#include <ldap.h>

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <new>
#include <utility>

namespace tavo::ldap {

namespace {

bool wouldBlock() noexcept { return errno == EAGAIN || errno == EWOULDBLOCK; }

/// For poll(2), which waits for ever below 0.
int pollTime(TimeLimit::Duration left)
{
    return left ? static_cast<int>(std::min<long long>(left->count(), INT_MAX)) : -1;
}

QString nameOf(Limit limit)
{
    switch (limit) {
    case Limit::connect:
        return QStringLiteral("connectTimeout");
    case Limit::answer:
        return QStringLiteral("answerTimeout");
    case Limit::response:
        return QStringLiteral("responseTimeout");
    case Limit::pageSilence:
        return QStringLiteral("pageSilenceTimeout");
    }
    return {};
}

} // namespace

std::shared_ptr<Connection> Connection::make(const ConnectionOptions& options, QString url)
{
    std::shared_ptr<Connection> connection(new Connection(options, std::move(url)));
    if (connection->m_interruption) {
        connection->m_interruption->add(connection);
    }
    return connection;
}

Connection::Connection(const ConnectionOptions& options, QString url)
    : m_options(options)
    , m_url(std::move(url))
    , m_interruption(options.interrupter ? options.interrupter->m_interruption : nullptr)
{}

int Connection::take(Socket socket)
{
    const std::lock_guard lock(m_mutex);
    m_socket = std::move(socket);
    if (m_end != End::none) {
        shutdown(m_socket.number(), SHUT_RDWR);
    }
    return m_socket.number();
}

bool Connection::close(int socket) noexcept
{
    const std::lock_guard lock(m_mutex);
    if (socket < 0 || m_socket.number() != socket) {
        return false;
    }
    // Now, also if a forked child has the socket, too.
    shutdown(socket, SHUT_RDWR);
    m_socket.reset();
    return true;
}

void Connection::disown() noexcept
{
    const std::lock_guard lock(m_mutex);
    m_socket.release();
}

void Connection::aboutToRead() noexcept
{
    if (TimeLimit* const limit = TimeLimit::ofThisThread(*this)) {
        limit->aboutToRead();
    }
}

ssize_t Connection::receive(int socket, char* to, std::size_t size) noexcept
{
    aboutToRead();
    for (;;) {
        if (isTooLate()) {
            errno = errorOfEnd();
            return -1;
        }
        const ssize_t count = recv(socket, to, size, MSG_DONTWAIT);
        if (count > 0) {
            noteBytes();
            return count;
        }
        if (count < 0 && wouldBlock()) {
            if (!awaitReady(socket, POLLIN)) {
                return -1;
            }
        } else if (isOver()) {
            errno = errorOfEnd();
            return -1;
        } else if (count == 0 || errno != EINTR) {
            return count;
        }
    }
}

ssize_t Connection::send(int socket, std::string_view bytes) noexcept
{
    TimeLimit* const limit = TimeLimit::ofThisThread(*this);
    if (limit != nullptr) {
        limit->aboutToWrite();
    }
    for (;;) {
        const ssize_t count = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0) {
            if (limit != nullptr) {
                limit->hasWritten();
            }
            return count;
        }
        if (wouldBlock()) {
            if (!awaitReady(socket, POLLOUT)) {
                return -1;
            }
        } else if (isOver()) {
            errno = errorOfEnd();
            return -1;
        } else if (errno != EINTR) {
            return -1;
        }
    }
}

/// Ends the connection when the time of the calling thread is up. A server that never pauses is never waited for.
/// A silence ends with the bytes that are there, however late they are looked at.
bool Connection::isTooLate() noexcept
{
    const TimeLimit* const limit = TimeLimit::ofThisThread(*this);
    if (limit == nullptr || limit->limit() == Limit::pageSilence ||
        limit->left() != std::chrono::milliseconds(0)) {
        return false;
    }
    endByLimit(limit->limit(), limit->duration());
    return true;
}

/// \return false with `errno`
bool Connection::awaitReady(int socket, short events) noexcept
{
    const TimeLimit* const limit = TimeLimit::ofThisThread(*this);
    if (limit == nullptr) {
        errno = ETIMEDOUT;
        return false;
    }
    // No number: poll(2) passes over the second one.
    const int interruption = m_interruption ? m_interruption->descriptor() : -1;
    std::array<pollfd, 2> waiting{{{socket, events, 0}, {interruption, POLLIN, 0}}};
    for (;;) {
        const TimeLimit::Duration left = limit->left();
        if (left && left->count() == 0) {
            endByLimit(limit->limit(), limit->duration());
        }
        if (isOver()) {
            errno = errorOfEnd();
            return false;
        }
        const int count = poll(waiting.data(), waiting.size(), pollTime(left));
        if (count < 0 && errno != EINTR) {
            return false;
        }
        if (count > 0 && waiting[0].revents != 0) {
            return true;
        }
    }
}

void Connection::handshakeBegins() noexcept
{
    m_isInHandshake = true;
    if (TimeLimit* const limit = TimeLimit::ofThisThread(*this)) {
        limit->switchTo(Limit::connect, m_options.connectTimeout, m_handshakeTime);
    }
}

bool Connection::isOver() const noexcept
{
    const std::lock_guard lock(m_mutex);
    return m_end != End::none;
}

void Connection::interrupt() noexcept { end(End::interruption); }

void Connection::endByLimit(Limit limit, TimeLimit::Duration duration) noexcept
{
    end(End::limit, limit, duration);
}

void Connection::endByMessageSize() noexcept { end(End::messageSize); }

void Connection::endByAnswerSize() noexcept { end(End::answerSize); }

void Connection::endByTlsVersion() noexcept { end(End::tlsVersion); }

void Connection::end(End reason, Limit limit, TimeLimit::Duration duration) noexcept
{
    const std::lock_guard lock(m_mutex);
    if (m_end != End::none) {
        return;
    }
    m_end = reason;
    m_endLimit = limit;
    m_endDuration = duration;
    // The client library's own waiting ends with this, on whatever thread.
    if (m_socket.number() >= 0) {
        shutdown(m_socket.number(), SHUT_RDWR);
    }
}

int Connection::errorOfEnd() const noexcept
{
    const std::lock_guard lock(m_mutex);
    switch (m_end) {
    case End::interruption:
        return ECANCELED;
    case End::limit:
        return ETIMEDOUT;
    case End::messageSize:
    case End::answerSize:
        return EMSGSIZE;
    case End::tlsVersion:
    case End::none:
        break;
    }
    return ECONNABORTED;
}

ClientCallResult Connection::outcome(ClientCallResult returned) const noexcept
{
    if (returned.code >= 0 || !isOver()) {
        return returned;
    }
    const int systemError = errorOfEnd();
    switch (systemError) {
    case ECANCELED:
        return {LDAP_USER_CANCELLED, systemError};
    case ETIMEDOUT:
        return {LDAP_TIMEOUT, systemError};
    default:
        return {returned.code, systemError};
    }
}

QString Connection::reason() const
{
    switch (m_end) {
    case End::none:
        return {};
    case End::interruption:
        return QStringLiteral("The program has interrupted the connection.");
    case End::limit:
        return utils::format(u"The connection was ended after the %1 of %2 ms.", nameOf(m_endLimit),
            m_endDuration ? static_cast<qint64>(m_endDuration->count()) : 0);
    case End::messageSize:
        return utils::format(
            u"The server sent a message that is longer than the maximumMessageSize of %1 bytes.",
            static_cast<quint64>(m_options.maximumMessageSize.value_or(0)));
    case End::answerSize:
        return utils::format(
            u"The server sent an answer that is longer than the maximumAnswerSize of %1 bytes.",
            static_cast<quint64>(m_options.maximumAnswerSize.value_or(0)));
    case End::tlsVersion:
        return QStringLiteral("The server's version of TLS is older than minimumTlsVersion, or unknown.");
    }
    return {};
}

void Connection::explain(BaseError& error) const
try {
    if (error.ldapCode >= 0) {
        return;
    }
    const std::lock_guard lock(m_mutex);
    using Kind = ConnectFailure::Kind;
    switch (m_end) {
    case End::none:
        if (error.connectFailure.kind == Kind::tls) {
            error.connectFailure.address = m_url;
        } else if (m_isInHandshake) {
            error.connectFailure = {Kind::tls, m_url,
                QStringLiteral("The server ended the connection during the TLS handshake.")};
        }
        return;
    case End::interruption:
        error.connectFailure = {Kind::interrupted, m_url, reason()};
        return;
    case End::limit:
        error.connectFailure = {Kind::timedOut, m_url, reason()};
        return;
    case End::messageSize:
    case End::answerSize:
        error.connectFailure = {Kind::tooMuch, m_url, reason()};
        return;
    case End::tlsVersion:
        error.connectFailure = {Kind::tls, m_url, reason()};
        return;
    }
} catch (const std::bad_alloc&) {
    // The error matters more than its details.
}

void Connection::explain(SearchReport& cancelled) const
try {
    const std::lock_guard lock(m_mutex);
    if (m_end == End::interruption) {
        cancelled.connectFailure = {ConnectFailure::Kind::interrupted, m_url, reason()};
    }
} catch (const std::bad_alloc&) {
    // As above.
}

BaseError endedCall(const Connection* connection, ClientCallResult returned, QString context)
{
    const auto [code, systemError] = outcomeOf(connection, returned);
    BaseError error(code, std::move(context), systemError);
    explainEnd(connection, error);
    return error;
}

} // namespace tavo::ldap
