#include <ldap/search_context.h>

#include <ldap/private/client_call.h>
#include <ldap/private/client_library.h>
#include <ldap/private/destructor_call.h>
#include <ldap/private/finished_threads.h>
#include <ldap/private/positions.h>
#include <ldap/private/search_turns.h>
#include <ldap/private/utils.h>
#include <ldap/tavo_ldap_ini.h>
#include <tavo_utils/assert.h>
#include <tavo_utils/log.h>
#include <tavo_utils/scope_guard.h>

#include <ldap.h>

#include <cerrno>
#include <ctime>
#include <exception>
#include <optional>
#include <utility>

namespace tavo::ldap {

namespace {

/// By design: minus one second, whatever the name says. The client library takes it as "wait until the result
/// is there", so the poll interval matters only when a call comes back without a message.
constexpr timeval kZeroTimeout{-1, 0};

constexpr timespec kPollInterval{0, 100'000'000};

/// The context whose search runs on this thread; it must not wait for its own thread.
thread_local const SearchContext* runningOnThisThread = nullptr;

int toLdapSearchScope(SearchScope scope)
{
    switch (scope) {
    case SearchScope::base:
        return LDAP_SCOPE_BASE;
    case SearchScope::oneLevel:
        return LDAP_SCOPE_ONELEVEL;
    case SearchScope::subtree:
        return LDAP_SCOPE_SUBTREE;
    }
    // By design: a corrupt scope reads one entry rather than failing or reading the whole tree.
    assertFailure(positions::unknownScope, "false");
    return LDAP_SCOPE_BASE;
}

/// The arguments of a search request in the client library's form; lives for one call.
struct SearchRequest
{
    SearchRequest(const SearchParams& params, std::vector<char*> names, std::chrono::seconds timeLimit)
        : base(params.base.toUtf8())
        , filterText(params.filter.toUtf8())
        , scope(toLdapSearchScope(params.scope))
        , attributeNames(std::move(names))
        , timeout{static_cast<decltype(timeval::tv_sec)>(timeLimit.count()), 0}
    {}

    const char* filter() const { return filterText.isEmpty() ? nullptr : filterText.constData(); }
    char** attributes() { return attributeNames.empty() ? nullptr : attributeNames.data(); }

    QByteArray base;
    QByteArray filterText;
    int scope;
    std::vector<char*> attributeNames;
    timeval timeout;
};

/// What the final message of a result says.
struct FinalResult
{
    int code;
    QString matchedDn;
    QString diagnostic;
};

FinalResult readFinalResult(LDAP* ld, LDAPMessage* chain, bool freeChain)
{
    int code = LDAP_SUCCESS;
    char* matchedDn = nullptr;
    char* diagnostic = nullptr;
    char** referrals = nullptr;
    const int rc =
        ldap_parse_result(ld, chain, &code, &matchedDn, &diagnostic, &referrals, nullptr, freeChain ? 1 : 0);
    const utils::ScopeGuard freeParsed([&] {
        ldap_memfree(matchedDn);
        ldap_memfree(diagnostic);
        ber_memvfree(reinterpret_cast<void**>(referrals));
    });
    return {rc != LDAP_SUCCESS ? rc : code, QString::fromUtf8(matchedDn), QString::fromUtf8(diagnostic)};
}

void sleepPollInterval()
{
    timespec remaining = kPollInterval;
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}

QString listText(const std::vector<QByteArray>& names)
{
    return utils::containerString(names, u", ", u"{ ", u" }", u"none");
}

} // namespace

/// One paged search from its first request to its final call; lives on the search's thread.
class PageLoop
{
public:
    PageLoop(SearchContext& context, int pageSize)
        : m_context(context)
        , m_pageSize(pageSize)
        , m_cookie(context.m_ldap.get())
    {}

    void run()
    {
        bool more = true;
        while (more && m_context.isAsyncSearchRunning()) {
            ++m_page;
            try {
                more = fetchPage();
            } catch (const BaseError& error) {
                warnIfItReadsAsSuccess(error);
                m_context.stopAsyncSearch(error.ldapCode, {});
            }
        }
    }

private:
    /// False when the search has come to its end.
    bool fetchPage()
    {
        std::optional<SearchResponse> response = receivePage();
        if (!response) {
            m_context.stopAsyncSearch(LDAP_USER_CANCELLED, {});
            return false;
        }
        if (ini().logResponseReferences) {
            response->logReferences();
        }
        std::vector<SearchEntry> entries = response->entries(m_context.m_params.attributes);
        TAVO_LOG_VERBOSE(log::tag(m_context), u"Found %1 entries on page %2", entries.size(), m_page);
        return deliver(*response, std::move(entries));
    }

    /// Nothing when the search was stopped, or was forgotten and would disturb another.
    std::optional<SearchResponse> receivePage()
    {
        SearchTurn* const turn = m_context.m_turn.get();
        if (turn != nullptr && !turn->beginPage()) {
            return std::nullopt;
        }
        const utils::ScopeGuard endPage([&] {
            if (turn != nullptr) {
                turn->endPage();
            }
        });
        TAVO_LOG_VERBOSE(log::tag(m_context), u"Getting page %1 (cookie size: %2)", m_page, m_cookie.size());
        const int messageId = sendRequest();
        TAVO_LOG_VERBOSE(log::tag(m_context), u"Polling message id %1 for page %2", messageId, m_page);
        return pollResult(messageId);
    }

    int sendRequest()
    {
        const ControlPtr pageControl = m_cookie.createPageControl(m_pageSize);
        LDAPControl* controls[] = {pageControl.get(), nullptr};
        SearchRequest request(m_context.m_params, m_context.m_attributeNames, m_context.m_timeout);
        int messageId = 0;
        const int rc = ldap_search_ext(m_context.m_ldap.get(), request.base.constData(), request.scope,
            request.filter(), request.attributes(), /*attrsonly*/ 0, controls, nullptr, &request.timeout,
            /*sizelimit*/ 0, &messageId);
        const int systemError = errno;
        if (rc != LDAP_SUCCESS) {
            throw BaseError(rc, QStringLiteral("ldap_search_ext"), systemError);
        }
        return messageId;
    }

    /// The page's result; nothing when the search was stopped meanwhile.
    std::optional<SearchResponse> pollResult(int messageId)
    {
        LDAP* ld = m_context.m_ldap.get();
        while (m_context.isAsyncSearchRunning()) {
            timeval timeout = kZeroTimeout;
            LDAPMessage* received = nullptr;
            const int rc = ldap_result(ld, messageId, LDAP_MSG_ALL, &timeout, &received);
            const int systemError = errno;
            if (rc == -1) {
                if (getLdapError(ld) == LDAP_DECODING_ERROR) {
                    stopReading(ld);
                }
                throw resultError(received, systemError);
            }
            if (received != nullptr) {
                MessagePtr chain(received, &ldap_msgfree);
                throwIfFailed(readFinalResult(ld, received, /*freeChain*/ false), systemError);
                return SearchResponse(ld, std::move(chain));
            }
            sleepPollInterval();
        }
        // The outstanding request is not abandoned; it dies with the connection.
        return std::nullopt;
    }

    BaseError resultError(LDAPMessage* message, int systemError) const
    {
        int code = LDAP_SERVER_DOWN;
        if (message != nullptr) {
            const int rc = ldap_parse_result(
                m_context.m_ldap.get(), message, &code, nullptr, nullptr, nullptr, nullptr, /*freeit*/ 1);
            code = rc != LDAP_SUCCESS ? rc : code;
        }
        return {code, QStringLiteral("ldap_result"), systemError};
    }

    /// By design: a result that the server calls a failure is one, whatever entries came with it. They are
    /// few, and a short page would read as the end of the list.
    void throwIfFailed(const FinalResult& result, int systemError) const
    {
        if (result.code == LDAP_SUCCESS) {
            return;
        }
        m_context.logFailedSearch(result.matchedDn, result.diagnostic);
        throw BaseError(result.code, QStringLiteral("ldap_result"), systemError);
    }

    /// Hands the page on; false when it was the last.
    bool deliver(SearchResponse& response, std::vector<SearchEntry> entries)
    {
        m_received += entries.size();
        // By design: a page shorter than asked for ends the search, even with a live cookie.
        if (static_cast<int>(entries.size()) < m_pageSize) {
            warnIfCutShort(response);
            finish(std::move(entries));
            return false;
        }
        const ControlsPtr controls = response.controls();
        m_cookie.update(controls);
        if (m_cookie.size() == 0) {
            warnIfNotPaged(controls);
            finish(std::move(entries));
            return false;
        }
        // The call is made under the lock, so that a stop from another thread comes after it. A handler that
        // stops its own search from here destroys itself only when it has returned.
        auto handler = m_context.m_handler.lock();
        if (*handler) {
            (*handler)(Result::moreResults, std::move(entries));
        }
        return true;
    }

    /// By design: an error without a code reads as success. It is that of an entry that can't become a
    /// record, such as a group without a name.
    void warnIfItReadsAsSuccess(const BaseError& error) const
    {
        if (error.ldapCode == LDAP_SUCCESS) {
            TAVO_LOG_WARNING(log::tag(m_context),
                u"Entries are missing: an error without a code on page %1, which reads as a success, ends "
                u"the "
                u"search below [%2] with filter [%3]; %4 entries were received: %5",
                m_page, m_context.m_params.base, m_context.m_params.filter, m_received, error.message());
        }
    }

    void finish(std::vector<SearchEntry> entries)
    {
        try {
            m_context.stopAsyncSearch(LDAP_SUCCESS, std::move(entries));
        } catch (const BaseError& error) {
            // By design: the handler has had its final call, so nobody is left who could be told.
            TAVO_LOG_WARNING(log::tag(m_context),
                u"The last page of the search below [%1] was lost in its handler: %2",
                m_context.m_params.base, error.message());
        }
    }

    bool saysThatMoreRemains(SearchResponse& response) const
    {
        try {
            return hasLivePageCookie(m_context.m_ldap.get(), response.controls());
        } catch (const BaseError&) {
            // The page is the last one, and good, whatever came along with it.
            return false;
        }
    }

    void warnIfCutShort(SearchResponse& response) const
    {
        if (saysThatMoreRemains(response)) {
            TAVO_LOG_WARNING(log::tag(m_context),
                u"Entries are missing: the server says that it has more, but page %1 is shorter than the %2 "
                u"entries asked for, which ends the search below [%3] with filter [%4]; %5 entries were "
                u"received. "
                u"Ask for pages no larger than the server's limit, or raise that limit.",
                m_page, m_pageSize, m_context.m_params.base, m_context.m_params.filter, m_received);
        }
    }

    void warnIfNotPaged(const ControlsPtr& controls) const
    {
        if (!hasPageControl(controls)) {
            TAVO_LOG_WARNING(log::tag(m_context),
                u"Entries may be missing: page %1 is full (%2 entries asked for) but came without the "
                u"server's "
                u"page control, which ends the search below [%3] with filter [%4]; %5 entries were received. "
                u"Check that the server supports paged results (1.2.840.113556.1.4.319) for this account.",
                m_page, m_pageSize, m_context.m_params.base, m_context.m_params.filter, m_received);
        }
    }

    SearchContext& m_context;
    int m_pageSize;
    Cookie m_cookie;
    int m_page = 0;
    std::size_t m_received = 0;
};

SearchContext::SearchContext(
    std::unique_ptr<LDAP, void (*)(LDAP*)> ldap, SearchParams params, std::chrono::seconds timeout)
    : m_ldap(std::move(ldap))
    , m_params(std::move(params))
    , m_timeout(timeout)
    , m_handler(Mutex::RecursionMode::recursive)
{
    if (!m_params.attributes.empty()) {
        m_attributeNames.reserve(m_params.attributes.size() + 1);
        for (QByteArray& name : m_params.attributes) {
            m_attributeNames.push_back(name.data());
        }
        m_attributeNames.push_back(nullptr);
    }
    TAVO_LOG_DEBUG(log::tag(*this), u"Created for [%1] with [%2] filter (attributes: %3)", m_params.base,
        m_params.filter, listText(m_params.attributes));
}

SearchContext::~SearchContext()
{
    callFromDestructor(log::tag(*this), [this] { stopAsyncSearch(); });
    if (runsOnThisThread()) {
        finished_threads::handOver(std::move(m_asyncSearch));
    }
}

std::vector<SearchEntry> SearchContext::simpleSearch() const
{
    TAVO_LOG_VERBOSE(log::tag(*this), u"Performing non-paged search");
    SearchRequest request(m_params, m_attributeNames, m_timeout);
    LDAPMessage* received = nullptr;
    const auto [rc, systemError] = callClient([&] {
        return ldap_search_ext_s(m_ldap.get(), request.base.constData(), request.scope, request.filter(),
            request.attributes(), /*attrsonly*/ 0, nullptr, nullptr, &request.timeout, /*sizelimit*/ 0,
            &received);
    });
    if (rc == LDAP_DECODING_ERROR) {
        stopReading(m_ldap.get());
    }
    if (rc != LDAP_SUCCESS) {
        int code = rc;
        if (received != nullptr) {
            const FinalResult result = readFinalResult(m_ldap.get(), received, /*freeChain*/ true);
            code = result.code;
            logFailedSearch(result.matchedDn, result.diagnostic);
        }
        throw BaseError(code, QStringLiteral("ldap_search_ext_s"), systemError);
    }
    if (received == nullptr) {
        // The client library's success when another thread has seen the connection end.
        throw BaseError(LDAP_SERVER_DOWN, QStringLiteral("ldap_search_ext_s"), systemError);
    }
    SearchResponse response(m_ldap.get(), MessagePtr(received, &ldap_msgfree));
    std::vector<SearchEntry> entries = response.entries(m_params.attributes);
    TAVO_LOG_VERBOSE(log::tag(*this), u"Found %1 entries", entries.size());
    return entries;
}

void SearchContext::asyncSearch(SearchHandler handler, int pageSize)
{
    if (pageSize <= 0) {
        assertFailure(positions::pageSizeNotPositive, "pageSize > 0");
        // By design: a refused start reads as an empty result, not as an error.
        giveUpTurn();
        handler(Result::ok, {});
        return;
    }
    // A handler that has stopped its own search still runs on that search's thread.
    if (isAsyncSearchRunning() || runsOnThisThread()) {
        assertFailure(positions::searchAlreadyRunning, "!isAsyncSearchRunning()");
        handler(Result::ok, {});
        return;
    }
    // The thread of an earlier, stopped search may need the mutex to end.
    m_asyncSearch = {};

    auto installed = m_handler.lock();
    if (m_turns) {
        m_turn = std::make_shared<SearchTurn>(m_turns);
    }
    *installed = std::move(handler);
    utils::ScopeGuard uninstall([&] {
        giveUpTurn();
        *installed = nullptr;
    });
    m_asyncSearch = std::async(std::launch::async, [self = shared_from_this(), pageSize]() mutable {
        const finished_threads::Ending ending;
        SigpipeGuard::blockForThisThread();
        runningOnThisThread = self.get();
        // Moved out of the task, whose state is owned by the context's own future: nothing may be left that
        // keeps the context alive when the search has ended.
        const std::shared_ptr<SearchContext> context = std::move(self);
        const utils::ScopeGuard giveUpTurn([&] { context->giveUpTurn(); });
        try {
            PageLoop(*context, pageSize).run();
        } catch (const std::exception& error) {
            context->reportBrokenOff(error.what());
            throw;
        } catch (...) {
            context->reportBrokenOff("it is of no known type");
            throw;
        }
    });
    uninstall.dismiss();
}

bool SearchContext::isAsyncSearchRunning() const { return static_cast<bool>(*m_handler.lock()); }

void SearchContext::stopAsyncSearch() { stopAsyncSearch(LDAP_USER_CANCELLED, {}); }

void SearchContext::stopAsyncSearch(int ldapCode, std::vector<SearchEntry> entries)
{
    SearchHandler handler;
    std::shared_ptr<SearchTurn> turn;
    {
        auto installed = m_handler.lock();
        handler = std::exchange(*installed, nullptr);
        // Here, because another thread may start the next search from now on.
        turn = m_turn;
    }
    if (!handler) {
        return;
    }
    if (turn) {
        turn->giveUp();
    }
    handler(translateErrorCode(ldapCode), std::move(entries));
}

bool SearchContext::runsOnThisThread() const { return runningOnThisThread == this; }

void SearchContext::giveUpTurn()
{
    if (m_turn) {
        m_turn->giveUp();
    }
}

void SearchContext::reportBrokenOff(const char* reason)
{
    TAVO_LOG_WARNING(
        log::tag(*this), u"The search below [%1] was ended by an exception: %2", m_params.base, reason);
    if (m_onBrokenOff) {
        m_onBrokenOff();
    }
}

void SearchContext::logFailedSearch(const QString& matchedDn, const QString& diagnostic) const
{
    TAVO_LOG_DEBUG(log::tag(*this), u"Search failed for [%1], matched DN [%2]; the server says: [%3]",
        m_params.base, matchedDn, diagnostic);
}

} // namespace tavo::ldap
