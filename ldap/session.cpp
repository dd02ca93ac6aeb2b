#include "ldap/session.h"

#include <ldap/error.h>
#include <ldap/private/collector.h>
#include <ldap/private/connected_handle.h>
#include <ldap/private/credentials.h>
#include <ldap/private/failure_details.h>
#include <ldap/private/handle.h>
#include <ldap/private/positions.h>
#include <ldap/private/reporting_handler.h>
#include <ldap/private/search_queue.h>
#include <ldap/private/search_table.h>
#include <ldap/private/server_url.h>
#include <ldap/private/tls.h>
#include <ldap/private/vendor.h>
#include <ldap/private/wire/limited_call.h>
#include <ldap/utils.h>
#include <tavo_utils/assert.h>
#include <tavo_utils/log.h>
#include <tavo_utils/scope_guard.h>

#include <ldap.h>

#include <QByteArray>

#include <exception>
#include <future>
#include <system_error>
#include <utility>

namespace tavo::ldap {

namespace {

BaseError refusedUrl(const QString& reason)
{
    BaseError error(LDAP_PARAM_ERROR, QStringLiteral("init"), 0);
    error.connectFailure = {ConnectFailure::Kind::invalidUrl, QString(), reason};
    return error;
}

void throwIfRefused(const log::Tag& tag, const utils::Url& url)
{
    const QString reason = refusalOf(url);
    if (reason.isEmpty()) {
        return;
    }
    TAVO_LOG_DEBUG(tag, u"Refusing the URL: %1", reason);
    throw refusedUrl(reason);
}

void logConnectFailure(const log::Tag& tag, const BaseError& error)
{
    if (error.connectFailure.kind != ConnectFailure::Kind::none) {
        TAVO_LOG_DEBUG(tag, u"The connection to %1 failed: %2", error.connectFailure.address,
            error.connectFailure.detail);
    }
}

} // namespace

Session::Session(const utils::Url& url, bool startTls, bool ignoreCertificateErrors)
    : Session(url, startTls, ignoreCertificateErrors, ConnectionOptions())
{}

Session::Session(
    const utils::Url& url, bool startTls, bool ignoreCertificateErrors, const ConnectionOptions& options)
    : m_ldap(nullptr, &Session::destroyLdap)
    , m_queue(std::make_shared<SearchQueue>())
    , m_searches(std::make_unique<SearchTable>())
{
    TAVO_LOG_DEBUG(log::tag(*this), u"Creating for %1", url);
    if (isLdapsUrl(url)) {
        m_isSecure = true;
    }
    clearTlsErrors();
    throwIfRefused(log::tag(*this), url);
    if (options.isEmpty()) {
        m_ldap = createHandle(url, m_isSecure, ignoreCertificateErrors);
    } else {
        connect(url, ignoreCertificateErrors, options);
    }
    if (startTls && !m_isSecure) {
        this->startTls();
    }
}

void Session::connect(const utils::Url& url, bool ignoreCertificateErrors, const ConnectionOptions& options)
{
    try {
        ConnectedHandle connected = connectHandle(url, m_isSecure, ignoreCertificateErrors, options);
        m_ldap = std::move(connected.handle);
        m_connection = std::move(connected.connection);
    } catch (const BaseError& error) {
        logConnectFailure(log::tag(*this), error);
        throw;
    }
    if (options.interrupter) {
        options.interrupter->m_interruption->add(m_queue);
    }
}

Session::~Session() { m_searches->cancelAll(log::tag(*this)); }

void Session::startTls()
{
    const bool isPlain = !m_isSecure;
    if (!isPlain) {
        assertFailure(positions::alreadySecure, "!m_isSecure");
    }
    // By design: before the handshake, so that a failing one is examined for TLS errors.
    m_isSecure = true;
    TAVO_LOG_VERBOSE(log::tag(*this), u"Upgrading to TLS");
    if (isPlain) {
        prepareStartTls(m_ldap.get(), m_connection ? &m_connection->options() : nullptr);
    }
    clearFailureDetails(m_ldap.get());
    const auto [rc, systemError] = callWithin(m_connection.get(), Limit::answer, answerTimeout(),
        [&] { return ldap_start_tls_s(m_ldap.get(), nullptr, nullptr); });
    if (rc != LDAP_SUCCESS) {
        // Or a bind that is tried all the same would send its password to whoever has spoilt the upgrade. Once
        // the error is explained, which takes the URL that was tried.
        const utils::ScopeGuard refuse([&] {
            if (isPlain) {
                refusePlainConnections(m_ldap.get());
            }
        });
        throwFailure(rc, systemError, QStringLiteral("startTls"));
    }
    if (m_connection) {
        requireTlsVersion(m_ldap.get(), *m_connection);
    }
}

void Session::bind(const QString& dn, const QString& password)
{
    if (dn.isEmpty() != password.isEmpty()) {
        assertFailure(positions::halfEmptyCredentials, "!(dn.isEmpty() ^ password.isEmpty())",
            QStringLiteral("dn and password must be empty or not empty both at the same time"));
    }
    TAVO_LOG_VERBOSE(log::tag(*this), u"Binding to [%1]...", dn);
    const QByteArray name = dn.toUtf8();
    Credentials credentials(password);
    const bool isShared = m_queue.use_count() > 1;
    clearFailureDetails(m_ldap.get());
    const auto [rc, systemError] = callWithin(m_connection.get(), Limit::answer, answerTimeout(), [&] {
        return ldap_sasl_bind_s(
            m_ldap.get(), name.constData(), LDAP_SASL_SIMPLE, credentials.get(), nullptr, nullptr, nullptr);
    });
    if (rc == LDAP_SUCCESS && m_connection && isShared && hasLostConnection(m_ldap.get())) {
        // The client library's success when another thread, a search's, has seen the connection end: nobody has
        // checked the password.
        throw endedCall(m_connection.get(), {LDAP_SERVER_DOWN, systemError}, QStringLiteral("bind"));
    }
    if (rc == LDAP_SUCCESS) {
        TAVO_LOG_DEBUG(log::tag(*this), u"Bound to [%1]", dn);
        return;
    }
    if (rc == LDAP_INVALID_CREDENTIALS) {
        try {
            throw InvalidCredentialsError(dn);
        } catch (BaseError& error) {
            explain(error, password);
            throw;
        }
    }
    throwFailure(rc, systemError, QStringLiteral("bind"), password);
}

QString Session::whoAmI()
{
    TAVO_LOG_VERBOSE(log::tag(*this), u"Who am I?");
    berval* identity = nullptr;
    const utils::ScopeGuard freeIdentity([&] { ber_bvfree(identity); });
    const bool isShared = m_queue.use_count() > 1;
    clearFailureDetails(m_ldap.get());
    const auto [rc, systemError] = callWithin(m_connection.get(), Limit::answer, answerTimeout(),
        [&] { return ldap_whoami_s(m_ldap.get(), &identity, nullptr, nullptr); });
    if (rc != LDAP_SUCCESS) {
        throwFailure(rc, systemError, QStringLiteral("whoAmI"));
    }
    if (identity == nullptr && isShared && hasLostConnection(m_ldap.get())) {
        // The client library's success when another thread, a search's, has seen the connection end.
        throw endedCall(m_connection.get(), {LDAP_SERVER_DOWN, systemError}, QStringLiteral("whoAmI"));
    }
    if (identity == nullptr || identity->bv_len == 0) {
        return QStringLiteral("anonymous");
    }
    // Up to its first NUL, which the client library guarantees behind the value.
    return QString::fromUtf8(identity->bv_val);
}

std::optional<TlsFacts> Session::tlsFacts() const { return ldap::tlsFacts(m_ldap.get()); }

std::optional<std::chrono::milliseconds> Session::answerTimeout() const
{
    return m_connection ? m_connection->options().answerTimeout : std::nullopt;
}

void Session::setResponseTimeout(std::chrono::seconds timeout) { m_responseTimeout = timeout; }

void Session::checkErrorAndThrow(int ldapCode, int systemError, QString context) const
{
    if (m_isSecure) {
        throwTlsErrorIfAny(ldapCode, systemError);
    }
    throw BaseError(ldapCode, std::move(context), systemError);
}

void Session::throwFailure(int ldapCode, int systemError, QString context, const QString& secret) const
{
    if (ldapCode == LDAP_DECODING_ERROR) {
        stopReading(m_ldap.get());
    }
    try {
        if (m_connection && (ldapCode == LDAP_TIMEOUT || ldapCode == LDAP_USER_CANCELLED)) {
            // Not of TLS, whatever its library has noted meanwhile.
            throw BaseError(ldapCode, std::move(context), systemError);
        }
        checkErrorAndThrow(ldapCode, systemError, std::move(context));
    } catch (BaseError& error) {
        explain(error, secret);
        throw;
    }
}

void Session::explain(BaseError& error, const QString& secret) const
{
    addFailureDetails(error, m_ldap.get(), m_isSecure, secret);
    explainEnd(m_connection.get(), error);
    if (error.ldapCode > 0) {
        TAVO_LOG_DEBUG(log::tag(*this), u"The server refused, matched DN [%1]; it says: [%2]",
            error.matchedDn, error.serverMessage);
    } else {
        logConnectFailure(log::tag(*this), error);
    }
}

void Session::destroyLdap(LDAP* ld) { destroyHandle(ld); }

std::unique_ptr<SearchContext> Session::createSearchContext(SearchParams params) const
{
    auto context = std::make_unique<SearchContext>(
        duplicateHandle(m_ldap.get()), std::move(params), m_responseTimeout.load());
    context->m_queue = m_queue;
    context->m_connection = m_connection;
    return context;
}

std::shared_ptr<SearchContext> Session::createSharedContext(SearchParams params) const
{
    auto context = std::make_shared<SearchContext>(
        duplicateHandle(m_ldap.get()), std::move(params), m_responseTimeout.load());
    context->m_connection = m_connection;
    return context;
}

std::vector<SearchEntry> Session::simpleSearch(SearchParams params) const
{
    const std::shared_ptr<SearchReport> report = params.report;
    std::unique_ptr<SearchContext> context;
    try {
        context = createSearchContext(std::move(params));
    } catch (const BaseError& error) {
        if (report) {
            *report = SearchReport();
            fillReport(*report, error);
        }
        throw;
    }
    return context->simpleSearch();
}

SearchContext* Session::asyncSearch(SearchParams params, SearchHandler handler, int pageSize)
{
    handler = reportingHandler(params.report, m_connection, std::move(handler));
    return m_searches->start(createSharedContext(std::move(params)), m_queue, std::move(handler), pageSize);
}

void Session::stopAsyncSearch(SearchContext* context) { m_searches->forget(context); }

std::variant<Result, std::vector<SearchEntry>> Session::search(SearchParams params, int pageSize)
{
    if (m_searches->isDeliveringOnThisThread() || m_queue->isHeldUpByThisThread()) {
        throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur),
            "tavo::ldap::Session::search, called by a handler from an intermediate call");
    }
    const std::shared_ptr<SearchReport> report = params.report;
    std::future<Result> finished;
    std::shared_ptr<std::vector<SearchEntry>> entries;
    try {
        Collector collector;
        finished = collector.finished();
        entries = collector.entries();
        SearchHandler handler = reportingHandler(params.report, m_connection, std::move(collector));
        auto context = createSharedContext(std::move(params));
        // Or this thread would wait for a final call that nobody is left to make.
        context->m_onBrokenOff = m_searches->brokenOffHandler(context.get());
        m_searches->start(std::move(context), m_queue, std::move(handler), pageSize);
    } catch (const BaseError& error) {
        if (report) {
            fillReport(*report, error);
        }
        return translateErrorCode(error.ldapCode);
    } catch (const std::exception& error) {
        TAVO_LOG_DEBUG(log::tag(*this), u"Could not start a search: %1", error.what());
        if (report) {
            report->ldapCode = LDAP_LOCAL_ERROR;
        }
        return Result::connectError;
    }
    // From here on the session may be gone: another thread may destroy it while this one waits.
    const Result result = finished.get();
    if (report && translateErrorCode(report->ldapCode) != result) {
        // The pages came, but there was no memory to keep them.
        report->ldapCode = LDAP_NO_MEMORY;
    }
    if (result != Result::ok) {
        return result;
    }
    return std::move(*entries);
}

VendorDefaults Session::detectLdapVendor() const
{
    try {
        const Vendor vendor = recognizeVendor(simpleSearch({QString(), QString(), {}, SearchScope::base}));
        if (servesConcurrentPagedSearches(vendor)) {
            m_queue->allowInterleaving();
        }
        return defaultsFor(vendor);
    } catch (const BaseError& error) {
        // By design: a server that can't be asked is treated as one that isn't Active Directory.
        TAVO_LOG_DEBUG(log::tag(*this), u"Detect LDAP vendor error: %1.", error.message());
        VendorDefaults assumed = defaultsFor(Vendor::openLdap);
        assumed.failure = error.message();
        return assumed;
    }
}

} // namespace tavo::ldap
