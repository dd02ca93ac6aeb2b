#include <ldap/session.h>

#include <ldap/private/client_call.h>
#include <ldap/private/client_library.h>
#include <ldap/private/destructor_call.h>
#include <ldap/private/finished_threads.h>
#include <ldap/private/positions.h>
#include <ldap/private/search_turns.h>
#include <ldap/private/wipe.h>
#include <tavo_utils/assert.h>
#include <tavo_utils/formatter.h>
#include <tavo_utils/log.h>
#include <tavo_utils/scope_guard.h>

#include <ldap.h>
#include <openssl/err.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <future>
#include <iterator>
#include <new>
#include <string>
#include <system_error>

namespace tavo::ldap {

namespace {

/// The credentials of a simple bind in the client library's memory, wiped before they are freed.
class Credentials
{
public:
    explicit Credentials(const QString& password)
    {
        QByteArray text = password.toUtf8();
        const utils::ScopeGuard wipeText([&] { wipe(text); });
        m_value.bv_len = static_cast<ber_len_t>(text.size());
        m_value.bv_val = ber_strdup(text.constData());
        if (text.contains('\0')) {
            // ber_strdup stopped there, short of the length that is announced with the copy.
            ber_memfree(m_value.bv_val);
            ber_mem2bv(text.constData(), m_value.bv_len, /*duplicate*/ 1, &m_value);
        }
        if (m_value.bv_val == nullptr) {
            throw BaseError(LDAP_NO_MEMORY, QStringLiteral("bind"), errno);
        }
    }

    ~Credentials()
    {
        explicit_bzero(m_value.bv_val, m_value.bv_len);
        ber_memfree(m_value.bv_val);
    }

    Credentials(const Credentials&) = delete;
    Credentials& operator=(const Credentials&) = delete;

    berval* get() { return &m_value; }

private:
    berval m_value{0, nullptr};
};

VendorDefaults activeDirectoryDefaults()
{
    return {QStringLiteral("sAMAccountName"), QStringLiteral("group"), QByteArrayLiteral("member"),
        // Accounts whose bit 2, "disabled", is not set.
        QStringLiteral("(&(objectCategory=User)(!(userAccountControl:1.2.840.113556.1.4.803:=2)))")};
}

VendorDefaults openLdapDefaults()
{
    return {QStringLiteral("uid"), QStringLiteral("groupOfNames"), QByteArrayLiteral("member"), QString()};
}

using LdapHandle = std::unique_ptr<LDAP, void (*)(LDAP*)>;

/// Puts the new handle into `handle` also when the call fails, so that whatever it left is freed.
void initialize(LdapHandle& handle, const utils::Url& url)
{
    const std::string text = url.toStdString();
    LDAP* ld = nullptr;
    const int rc = ldap_initialize(&ld, text.c_str());
    const int systemError = errno;
    handle.reset(ld);
    if (rc != LDAP_SUCCESS) {
        throw BaseError(rc, QStringLiteral("init"), systemError);
    }
}

void createTlsContext(LDAP* ld)
{
    const int clientSide = 0;
    const int rc = ldap_set_option(ld, LDAP_OPT_X_TLS_NEWCTX, &clientSide);
    const int systemError = errno;
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QStringLiteral("set LDAP_OPT_X_TLS_NEWCTX"), systemError);
    }
}

/// Gives the handle the authorities that the host's OpenLDAP configuration trusts (TLS_CACERT,
/// TLS_CACERTDIR), for its next TLS context. \return whether there are any
///
/// By design: the client library hands them to its default context alone, and a context of one's own would
/// trust nobody (GnuTLS) or somebody else (OpenSSL). What is configured and isn't there is passed over, as
/// Debian's configuration names a file that a small installation lacks; what is there and can't be read makes
/// the context fail, rather than to trust somebody else in its place.
bool trustHostsAuthorities(LDAP* ld)
{
    bool found = false;
    for (const int option : {LDAP_OPT_X_TLS_CACERTFILE, LDAP_OPT_X_TLS_CACERTDIR}) {
        char* path = nullptr;
        ldap_get_option(nullptr, option, &path);
        const utils::ScopeGuard freePath([&] { ldap_memfree(path); });
        if (path != nullptr && (access(path, F_OK) == 0 || errno != ENOENT)) {
            found |= ldap_set_option(ld, option, path) == LDAP_OPT_SUCCESS;
        }
    }
    return found;
}

bool verifiesCertificates(LDAP* ld)
{
    int requirement = LDAP_OPT_X_TLS_NEVER;
    ldap_get_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &requirement);
    return requirement != LDAP_OPT_X_TLS_NEVER;
}

void setOptions(LDAP* ld, bool isSecure, bool ignoreCertificateErrors)
{
    // By design: a failure of the first two carries neither a context nor a system error, unlike TLS ones.
    const int version = LDAP_VERSION3;
    int rc = ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QString(), 0);
    }
    rc = ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QString(), 0);
    }

    const int requireCertificate = ignoreCertificateErrors ? LDAP_OPT_X_TLS_NEVER : LDAP_OPT_X_TLS_HARD;
    rc = ldap_set_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &requireCertificate);
    const int systemError = errno;
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QStringLiteral("set LDAP_OPT_X_TLS_REQUIRE_CERT"), systemError);
    }
    if (isSecure && !ignoreCertificateErrors) {
        trustHostsAuthorities(ld);
    }
    // The requirement takes effect only in a TLS context that is made after it.
    createTlsContext(ld);
}

/// A configured handle, not connected yet.
LdapHandle createHandle(const utils::Url& url, bool isSecure, bool ignoreCertificateErrors)
{
    /// Whether the client library's TLS layer, which its first TLS context sets up, is ready.
    static bool tlsIsSetUp = false;

    LdapHandle handle(nullptr, &Session::destroyLdap);
    MutexLocker lock(initMutex());
    initialize(handle, url);
    if (tlsIsSetUp) {
        lock.unlock();
        setOptions(handle.get(), isSecure, ignoreCertificateErrors);
        return handle;
    }
    setOptions(handle.get(), isSecure, ignoreCertificateErrors);
    tlsIsSetUp = true;
    return handle;
}

/// Whether either end of the connection is closed, or there is none.
bool hasLostConnection(LDAP* ld)
{
    int socket = -1;
    ldap_get_option(ld, LDAP_OPT_DESC, &socket);
    char next = 0;
    const ssize_t count = socket < 0 ? 0 : recv(socket, &next, 1, MSG_PEEK | MSG_DONTWAIT);
    return count == 0 || (count < 0 && errno != EAGAIN);
}

/// Collects a whole paged search for a caller who waits for it.
class Collector
{
public:
    std::future<Result> finished() { return m_result.get_future(); }
    std::shared_ptr<std::vector<SearchEntry>> entries() const { return m_entries; }

    void operator()(Result result, std::vector<SearchEntry> page)
    {
        const bool isKept = append(std::move(page));
        if (result != Result::moreResults) {
            m_result.set_value(isKept ? result : Result::connectError);
        } else if (!isKept) {
            // As an LDAP error, which becomes the final result; anything else would leave the caller waiting.
            throw BaseError(LDAP_NO_MEMORY, QStringLiteral("search"), 0);
        }
    }

private:
    /// False when there is no memory for them.
    bool append(std::vector<SearchEntry> page)
    {
        try {
            m_entries->insert(
                m_entries->end(), std::move_iterator(page.begin()), std::move_iterator(page.end()));
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    std::promise<Result> m_result;
    std::shared_ptr<std::vector<SearchEntry>> m_entries = std::make_shared<std::vector<SearchEntry>>();
};

} // namespace

Session::Session(const utils::Url& url, bool startTls, bool ignoreCertificateErrors)
    : m_ldap(nullptr, &Session::destroyLdap)
    , m_mutex(Mutex::RecursionMode::recursive)
    , m_turns(std::make_shared<SearchTurns>())
{
    TAVO_LOG_DEBUG(log::tag(*this), u"Creating for %1", url);
    if (isLdapsUrl(url)) {
        m_isSecure = true;
    }
    ERR_clear_error();
    m_ldap = createHandle(url, m_isSecure, ignoreCertificateErrors);
    if (startTls && !m_isSecure) {
        this->startTls();
    }
}

Session::~Session()
{
    MutexLocker lock(m_mutex, positions::sessionDestructorLock);
    m_isEnding = true;
    auto searches = std::exchange(m_asyncSearches, {});
    lock.unlock();
    for (auto& [context, search] : searches) {
        context->giveUpTurn();
        callFromDestructor(log::tag(*this), [&handler = search.second] { handler(Result::cancelled, {}); });
    }
    searches.clear();
    // Before the mutex and the table go: a completion on another thread either finishes its work on them
    // first or finds the guard invalid. Our own completion, if this runs in one, is not waited for.
    m_asyncGuard.invalidate();
    finished_threads::join();
}

void Session::startTls()
{
    if (m_isSecure) {
        assertFailure(positions::alreadySecure, "!m_isSecure");
    }
    // By design: before the handshake, so that a failing one is examined for TLS errors.
    m_isSecure = true;
    TAVO_LOG_VERBOSE(log::tag(*this), u"Upgrading to TLS");
    if (verifiesCertificates(m_ldap.get()) && trustHostsAuthorities(m_ldap.get())) {
        createTlsContext(m_ldap.get());
    }
    const auto [rc, systemError] =
        callClient([&] { return ldap_start_tls_s(m_ldap.get(), nullptr, nullptr); });
    if (rc != LDAP_SUCCESS) {
        checkErrorAndThrow(rc, systemError, QStringLiteral("startTls"));
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
    const auto [rc, systemError] = callClient([&] {
        return ldap_sasl_bind_s(
            m_ldap.get(), name.constData(), LDAP_SASL_SIMPLE, credentials.get(), nullptr, nullptr, nullptr);
    });
    if (rc == LDAP_SUCCESS) {
        TAVO_LOG_DEBUG(log::tag(*this), u"Bound to [%1]", dn);
        return;
    }
    if (rc == LDAP_INVALID_CREDENTIALS) {
        throw InvalidCredentialsError(dn);
    }
    checkErrorAndThrow(rc, systemError, QStringLiteral("bind"));
}

QString Session::whoAmI()
{
    TAVO_LOG_VERBOSE(log::tag(*this), u"Who am I?");
    berval* identity = nullptr;
    const utils::ScopeGuard freeIdentity([&] { ber_bvfree(identity); });
    const bool isShared = m_turns.use_count() > 1;
    const auto [rc, systemError] =
        callClient([&] { return ldap_whoami_s(m_ldap.get(), &identity, nullptr, nullptr); });
    if (rc != LDAP_SUCCESS) {
        checkErrorAndThrow(rc, systemError, QStringLiteral("whoAmI"));
    }
    if (identity == nullptr && isShared && hasLostConnection(m_ldap.get())) {
        // The client library's success when another thread, a search's, has seen the connection end.
        throw BaseError(LDAP_SERVER_DOWN, QStringLiteral("whoAmI"), systemError);
    }
    if (identity == nullptr || identity->bv_len == 0) {
        return QStringLiteral("anonymous");
    }
    // Up to its first NUL, which the client library guarantees behind the value.
    return QString::fromUtf8(identity->bv_val);
}

void Session::setResponseTimeout(std::chrono::seconds timeout) { m_responseTimeout = timeout; }

void Session::checkErrorAndThrow(int ldapCode, int systemError, QString context) const
{
    if (ldapCode == LDAP_DECODING_ERROR) {
        stopReading(m_ldap.get());
    }
    if (m_isSecure) {
        // An error of another OpenSSL library is consumed with this and tells nothing.
        const unsigned long sslError = ERR_get_error();
        if (ERR_GET_LIB(sslError) == ERR_LIB_SSL) {
            throw TlsError(sslError, ldapCode, systemError);
        }
    }
    throw BaseError(ldapCode, std::move(context), systemError);
}

void Session::destroyLdap(LDAP* ld)
{
    const int rc = callClient([&] { return ldap_destroy(ld); }).code;
    if (rc != LDAP_SUCCESS) {
        struct destroyLdap
        {};
        TAVO_LOG_DEBUG(log::scopeTag<struct destroyLdap>(), u"Error destroying ldap: %1",
            BaseError::ldapErrorString(rc));
    }
}

std::unique_ptr<LDAP, void (*)(LDAP*)> Session::duplicateHandle() const
{
    LDAP* duplicate = ldap_dup(m_ldap.get());
    const int systemError = errno;
    if (duplicate == nullptr) {
        throw BaseError(LDAP_NO_MEMORY, QStringLiteral("ldap_dup"), systemError);
    }
    return {duplicate, &Session::destroyLdap};
}

std::unique_ptr<SearchContext> Session::createSearchContext(SearchParams params) const
{
    auto context =
        std::make_unique<SearchContext>(duplicateHandle(), std::move(params), m_responseTimeout.load());
    context->m_turns = m_turns;
    return context;
}

std::vector<SearchEntry> Session::simpleSearch(SearchParams params) const
{
    return createSearchContext(std::move(params))->simpleSearch();
}

std::shared_ptr<SearchContext> Session::createSharedContext(SearchParams params) const
{
    return std::make_shared<SearchContext>(duplicateHandle(), std::move(params), m_responseTimeout.load());
}

SearchContext* Session::asyncSearch(SearchParams params, SearchHandler handler, int pageSize)
{
    return start(createSharedContext(std::move(params)), std::move(handler), pageSize);
}

SearchContext* Session::start(std::shared_ptr<SearchContext> search, SearchHandler handler, int pageSize)
{
    // To the end of this call, though another thread may forget the search before.
    const std::shared_ptr<SearchContext> owner = std::move(search);
    SearchContext* const context = owner.get();
    const auto guard = m_asyncGuard.sharedGuard();
    {
        const MutexLocker lock(m_mutex, positions::registerSearchLock);
        if (m_isEnding) {
            // By a final call; nobody would be left to make the new search's own.
            throw BaseError(LDAP_USER_CANCELLED, QStringLiteral("asyncSearch"), 0);
        }
        owner->m_turn = std::make_shared<SearchTurn>(m_turns);
        m_asyncSearches.emplace(context, std::make_pair(owner, std::move(handler)));
    }
    utils::ScopeGuard forget([&] {
        // Unless the handler of a refused start has destroyed the session before it threw.
        if (const auto alive = guard.lock()) {
            stopAsyncSearch(context);
        }
    });
    // The context's address and not its owner: the wrapper is kept by the context itself.
    context->asyncSearch(
        [this, guard, context](Result result, std::vector<SearchEntry> entries) {
            if (const auto alive = guard.lock()) {
                const bool isEnd = result != Result::moreResults && context->runsOnThisThread();
                // While the guard is held, so that a session that ends doesn't miss it.
                const utils::ScopeGuard announceEnd([isEnd] {
                    if (isEnd) {
                        finished_threads::announceEnd();
                    }
                });
                completeSearch(context, result, std::move(entries));
            }
        },
        pageSize);
    forget.dismiss();
    return context;
}

void Session::completeSearch(SearchContext* context, Result result, std::vector<SearchEntry> entries)
{
    // Released after the lock: a handler that forgets its own search may own the session.
    AsyncSearches forgotten;
    MutexLocker lock(m_mutex, positions::completeSearchLock);
    const auto search = m_asyncSearches.find(context);
    if (search == m_asyncSearches.end()) {
        return;
    }
    if (result == Result::moreResults) {
        m_isDelivering = true;
        const utils::ScopeGuard delivered([&] {
            m_isDelivering = false;
            forgotten.swap(m_forgotten);
        });
        search->second.second(result, std::move(entries));
        return;
    }
    auto [owner, handler] = std::move(search->second);
    m_asyncSearches.erase(search);
    lock.unlock();
    handler(result, std::move(entries));
}

void Session::stopAsyncSearch(SearchContext* context)
{
    MutexLocker lock(m_mutex, positions::forgetSearchLock);
    // Released after the lock: the handler is the caller's code, and the context may be the last of its own.
    auto forgotten = m_asyncSearches.extract(context);
    if (!forgotten) {
        return;
    }
    context->giveUpTurn();
    if (m_isDelivering) {
        // By a handler, whose call holds the lock until it returns.
        m_forgotten.insert(std::move(forgotten));
    }
    lock.unlock();
}

bool Session::isDeliveringOnThisThread()
{
    // A call on another thread has the lock and is waited for.
    const MutexLocker lock(m_mutex);
    return m_isDelivering;
}

std::variant<Result, std::vector<SearchEntry>> Session::search(SearchParams params, int pageSize)
{
    if (isDeliveringOnThisThread()) {
        throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur),
            "tavo::ldap::Session::search, called by a handler from an intermediate call");
    }
    Collector collector;
    std::future<Result> finished = collector.finished();
    const auto entries = collector.entries();
    auto context = createSharedContext(std::move(params));
    // Forgotten then, or this thread would wait for a final call that nobody is left to make.
    context->m_onBrokenOff = [this, guard = m_asyncGuard.sharedGuard(), address = context.get()] {
        if (const auto alive = guard.lock()) {
            stopAsyncSearch(address);
            finished_threads::announceEnd();
        }
    };
    try {
        start(std::move(context), std::move(collector), pageSize);
    } catch (const BaseError& error) {
        return translateErrorCode(error.ldapCode);
    }
    // From here on the session may be gone: another thread may destroy it while this one waits.
    const Result result = finished.get();
    if (result != Result::ok) {
        return result;
    }
    return std::move(*entries);
}

VendorDefaults Session::detectLdapVendor() const
{
    try {
        const auto entries = simpleSearch({QString(), QString(), {}, SearchScope::base});
        for (const SearchEntry& entry : entries) {
            if (!entry.getAttributeFirstValue(QStringLiteral("forestFunctionality")).isEmpty()) {
                m_turns->allowInterleaving();
                return activeDirectoryDefaults();
            }
        }
    } catch (const BaseError& error) {
        // By design: a server that can't be asked is treated as one that isn't Active Directory.
        TAVO_LOG_DEBUG(log::tag(*this), u"Detect LDAP vendor error: %1.", error.message());
    }
    return openLdapDefaults();
}

} // namespace tavo::ldap
