#include "ldap/private/connected_handle.h"

#include <ldap/error.h>
#include <ldap/private/client_library.h>
#include <ldap/private/failure_details.h>
#include <ldap/private/server_url.h>
#include <ldap/private/tls.h>
#include <ldap/private/wire/connector.h>
#include <ldap/private/wire/interruption.h>
#include <ldap/private/wire/limited_call.h>
#include <tavo_utils/scope_guard.h>
#include <tavo_utils/system_error.h>

#include <ldap.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

namespace tavo::ldap {

namespace {

using Clock = TimeLimit::Clock;

QString context() { return QStringLiteral("connect"); }

BaseError refused(QString reason)
{
    BaseError error(LDAP_PARAM_ERROR, QStringLiteral("init"), 0);
    error.connectFailure = {ConnectFailure::Kind::invalidOptions, {}, std::move(reason)};
    return error;
}

void throwIfRefused(const ConnectionOptions& options)
{
    const auto isNoTime = [](const auto& limit) { return limit && limit->count() <= 0; };
    if (isNoTime(options.connectTimeout) || isNoTime(options.answerTimeout) ||
        isNoTime(options.pageSilenceTimeout)) {
        throw refused(QStringLiteral("a limit of time must be longer than 0; leave it absent for none"));
    }
    if (options.maximumMessageSize == 0U || options.maximumAnswerSize == 0U) {
        throw refused(QStringLiteral("a limit of size must be larger than 0; leave it absent for none"));
    }
    const auto isNoFile = [](const auto& file) {
        return file && (file->isEmpty() || file->contains(QChar(0)));
    };
    if (isNoFile(options.trustedCertificates) || isNoFile(options.clientCertificate) ||
        isNoFile(options.clientKey)) {
        throw refused(QStringLiteral("the name of a file is empty, or has a NUL; leave it absent for none"));
    }
    if (options.clientKey && !options.clientCertificate) {
        throw refused(QStringLiteral("clientKey needs a clientCertificate"));
    }
}

/// What is left of the time to connect. Looking up names doesn't count.
class Budget
{
public:
    explicit Budget(TimeLimit::Duration whole)
        : m_left(whole ? std::optional(std::min(*whole, TimeLimit::kLongest)) : std::nullopt)
    {}

    /// For the next of so many servers.
    TimeLimit::Duration share(qsizetype servers) const
    {
        if (!m_left) {
            return std::nullopt;
        }
        const std::chrono::milliseconds fair = *m_left / servers;
        return std::max(fair, std::chrono::milliseconds(1));
    }

    void spend(Clock::time_point since)
    {
        if (m_left) {
            m_left = std::max(*m_left - std::chrono::floor<std::chrono::milliseconds>(Clock::now() - since),
                std::chrono::milliseconds(0));
        }
    }

private:
    TimeLimit::Duration m_left;
};

QString textOf(const std::vector<ConnectFailure::Try>& tries)
{
    QStringList texts;
    std::transform(tries.begin(), tries.end(), std::back_inserter(texts), [](const ConnectFailure::Try& one) {
        return one.address + QLatin1String(": ") + utils::SystemError::toString(one.systemError);
    });
    return texts.join(QLatin1String("; "));
}

BaseError unreachable(const QString& url, const std::vector<ConnectFailure::Try>& tries)
{
    BaseError error(LDAP_SERVER_DOWN, context(), tries.empty() ? 0 : tries.back().systemError);
    error.connectFailure = {ConnectFailure::Kind::unreachable, url, textOf(tries)};
    return error;
}

/// One server of the URL's list.
class ServerConnection
{
public:
    ServerConnection(
        QString url, bool isSecure, bool ignoreCertificateErrors, const ConnectionOptions& options)
        : m_url(std::move(url))
        , m_isSecure(isSecure)
        , m_ignoreCertificateErrors(ignoreCertificateErrors)
        , m_connection(Connection::make(options, m_url))
    {}

    /// \throws BaseError, TlsError
    ConnectedHandle open(Budget& budget, qsizetype servers)
    try {
        throwIfOver();
        auto addresses = Server::ofUrl(m_url).addresses();
        const auto begin = Clock::now();
        const utils::ScopeGuard spend([&] { budget.spend(begin); });
        const TimeLimit::Duration share = budget.share(servers);
        if (share) {
            m_deadline = begin + *share;
        }
        LdapHandle handle = createHandle(
            m_url, connect(std::move(addresses)), m_connection, m_isSecure, m_ignoreCertificateErrors);
        if (m_deadline) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*m_deadline - Clock::now());
            m_connection->setHandshakeTime(std::max(left, std::chrono::milliseconds(0)));
        }
        if (startsWithTls(handle.get(), m_isSecure)) {
            installTls(handle.get());
            requireTlsVersion(handle.get(), *m_connection);
        }
        return {std::move(handle), m_connection};
    } catch (BaseError& error) {
        m_connection->explain(error);
        if (error.connectFailure.kind != ConnectFailure::Kind::none) {
            error.connectFailure.address = m_url;
        }
        error.connectFailure.tries = std::move(m_tries);
        throw;
    }

private:
    /// Before a name is looked up in vain.
    void throwIfOver() const
    {
        const auto [code, systemError] = m_connection->outcome({LDAP_SERVER_DOWN, 0});
        if (systemError != 0) {
            throw BaseError(code, context(), systemError);
        }
    }

    Socket connect(std::vector<SocketAddress> addresses)
    {
        Connector connector(std::move(addresses), m_deadline, m_connection->interruption());
        Socket socket = connector.connect();
        m_tries = connector.tries();
        if (socket.number() >= 0) {
            return socket;
        }
        if (m_deadline && Clock::now() >= *m_deadline) {
            m_connection->endByLimit(Limit::connect, m_connection->options().connectTimeout);
        }
        const Interruption* const interruption = m_connection->interruption();
        if (interruption != nullptr && interruption->isInterrupted()) {
            // Whoever interrupts may not have come to this connection yet.
            m_connection->interrupt();
        }
        throwIfOver();
        throw unreachable(m_url, m_tries);
    }

    void installTls(LDAP* ld)
    {
        const TimeLimit limit(m_connection.get(), Limit::connect, m_connection->options().connectTimeout);
        // Also of another server of the list.
        clearTlsErrors();
        clearFailureDetails(ld);
        const ClientCallResult returned = callClient([&] { return ldap_install_tls(ld); });
        if (returned.code == LDAP_SUCCESS) {
            return;
        }
        throwIfOver();
        try {
            throwTlsErrorIfAny(returned.code, returned.systemError);
            throw BaseError(returned.code, context(), returned.systemError);
        } catch (BaseError& error) {
            addFailureDetails(error, ld, /*isSecure*/ true);
            throw;
        }
    }

    const QString m_url;
    const bool m_isSecure;
    const bool m_ignoreCertificateErrors;
    const std::shared_ptr<Connection> m_connection;
    std::optional<Clock::time_point> m_deadline;
    std::vector<ConnectFailure::Try> m_tries;
};

/// Whether the next server of a list may do better.
bool isOfThisServer(const BaseError& error)
{
    const bool isConnection = error.ldapCode == LDAP_SERVER_DOWN || error.ldapCode == LDAP_CONNECT_ERROR ||
                              error.ldapCode == LDAP_TIMEOUT;
    return isConnection && error.connectFailure.kind != ConnectFailure::Kind::interrupted;
}

} // namespace

ConnectedHandle connectHandle(
    const utils::Url& url, bool isSecure, bool ignoreCertificateErrors, const ConnectionOptions& options)
{
    throwIfRefused(options);
    // What follows reads the client library's options, and its first use looks up the machine's own name, which is
    // no part of connecting.
    setUpGlobalOptions();
    const QStringList urls = urlsOf(url);
    Budget budget(options.connectTimeout);
    std::vector<ConnectFailure::Try> tries;
    for (qsizetype number = 0;; ++number) {
        ServerConnection server(urls[number], isSecure, ignoreCertificateErrors, options);
        try {
            return server.open(budget, urls.size() - number);
        } catch (BaseError& error) {
            auto& failed = error.connectFailure.tries;
            std::move(failed.begin(), failed.end(), std::back_inserter(tries));
            if (number + 1 == urls.size() || !isOfThisServer(error)) {
                failed = std::move(tries);
                throw;
            }
        }
    }
}

void requireTlsVersion(LDAP* ld, Connection& connection)
{
    connection.handshakeSucceeds();
    const auto& minimum = connection.options().minimumTlsVersion;
    if (!minimum || speaksAtLeast(ld, *minimum)) {
        return;
    }
    connection.endByTlsVersion();
    throw endedCall(&connection, {LDAP_CONNECT_ERROR, 0}, context());
}

} // namespace tavo::ldap
