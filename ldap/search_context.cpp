#include "ldap/search_context.h"

#include <ldap/error.h>
#include <ldap/private/attribute_names.h>
#include <ldap/private/destructor_call.h>
#include <ldap/private/failure_details.h>
#include <ldap/private/handle.h>
#include <ldap/private/page_loop.h>
#include <ldap/private/positions.h>
#include <ldap/private/search_queue.h>
#include <ldap/private/search_request.h>
#include <ldap/private/search_response.h>
#include <ldap/private/search_threads.h>
#include <ldap/private/sigpipe_guard.h>
#include <ldap/private/wire/limited_call.h>
#include <tavo_utils/assert.h>
#include <tavo_utils/formatter.h>
#include <tavo_utils/log.h>
#include <tavo_utils/scope_guard.h>

#include <ldap.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

namespace tavo::ldap {

namespace {

/// The context whose search runs on this thread; it must not wait for its own thread.
thread_local const SearchContext* runningOnThisThread = nullptr;

const QString kBlockingSearch = QStringLiteral("ldap_search_ext_s");

BaseError failedCall(LDAP* ld, const Connection* connection, ClientCallResult returned)
{
    BaseError error(returned.code, kBlockingSearch, returned.systemError);
    addFailureDetails(error, ld, isSecure(ld));
    explainEnd(connection, error);
    return error;
}

QString listText(const std::vector<QByteArray>& names)
{
    return utils::containerString(names, u", ", u"{ ", u" }", u"none");
}

} // namespace

/// The context's paged search as its page loop sees it.
class SearchContext::Pages final : public PagedSearch
{
public:
    explicit Pages(SearchContext& context)
        : m_context(context)
    {}

    bool isRunning() const override { return m_context.isAsyncSearchRunning(); }

    void deliver(std::vector<SearchEntry> page) override
    {
        // The call is made under the lock, so that a stop from another thread comes after it. A handler that
        // stops its own search from here destroys itself only when it has returned.
        auto handler = m_context.m_handler.lock();
        const SearchTicket::Delivery delivery(m_context.m_ticket.get());
        if (*handler) {
            (*handler)(Result::moreResults, std::move(page));
        }
    }

    void finish(SearchReport report, std::vector<SearchEntry> lastPage) override
    {
        m_context.stopAsyncSearch(std::move(report), std::move(lastPage));
    }

private:
    SearchContext& m_context;
};

SearchContext::SearchContext(
    std::unique_ptr<LDAP, void (*)(LDAP*)> ldap, SearchParams params, std::chrono::seconds timeout)
    : m_ldap(std::move(ldap))
    , m_params(std::make_unique<SearchParams>(std::move(params)))
    , m_timeout(timeout)
    , m_attributeNames(attributeNamePointers(m_params->attributes))
    , m_handler(Mutex::RecursionMode::recursive)
{
    TAVO_LOG_DEBUG(log::tag(*this), u"Created for [%1] with [%2] filter (attributes: %3)", m_params->base,
        m_params->filter, listText(m_params->attributes));
}

SearchContext::~SearchContext()
{
    callFromDestructor(log::tag(*this), [this] { stopAsyncSearch(); });
    if (runsOnThisThread()) {
        const bool isOfASessionsTable = m_ticket && !m_queue;
        if (!isOfASessionsTable && m_params->report) {
            // The report is the caller's and may own what its destruction ends, a session even. In a
            // session's table a search has a report of its own.
            const search_threads::NotAwaited whileReleasing;
            m_params.reset();
        }
        // Others may wait for this thread from now on, so it must have nothing more to log.
        m_ldap.reset();
        search_threads::joinLater(std::move(m_asyncSearch));
    }
}

std::vector<SearchEntry> SearchContext::simpleSearch() const
{
    SearchReport report;
    // Unless there is another outcome: an exception of another kind, for want of memory.
    report.ldapCode = LDAP_NO_MEMORY;
    const utils::ScopeGuard handReport([&] {
        if (m_params->report) {
            *m_params->report = std::move(report);
        }
    });
    try {
        std::vector<SearchEntry> entries = findEntries(report);
        report.ldapCode = LDAP_SUCCESS;
        return entries;
    } catch (const BaseError& error) {
        fillReport(report, error);
        throw;
    }
}

std::vector<SearchEntry> SearchContext::findEntries(SearchReport& report) const
{
    TAVO_LOG_VERBOSE(log::tag(*this), u"Performing non-paged search");
    SearchRequest request(*m_params, m_attributeNames, m_timeout);
    clearFailureDetails(m_ldap.get());
    LDAPMessage* received = nullptr;
    // A time of 0 or less is for the client library to make sense of.
    const auto longest = std::chrono::duration_cast<std::chrono::seconds>(TimeLimit::kLongest);
    const auto timeout =
        m_timeout.count() > 0 ? TimeLimit::Duration(std::min(m_timeout, longest)) : std::nullopt;
    const auto returned = callWithin(m_connection.get(), Limit::response, timeout, [&] {
        return ldap_search_ext_s(m_ldap.get(), request.base.constData(), request.scope, request.filter(),
            request.attributes(), /*attrsonly*/ 0, nullptr, nullptr, &request.timeout, /*sizelimit*/ 0,
            &received);
    });
    const auto [rc, systemError] = returned;
    if (rc == LDAP_DECODING_ERROR) {
        stopReading(m_ldap.get());
    }
    if (rc != LDAP_SUCCESS) {
        if (received == nullptr) {
            throw failedCall(m_ldap.get(), m_connection.get(), returned);
        }
        const FinalResult result = readFinalResult(m_ldap.get(), received, /*freeChain*/ true);
        logFailedSearch(log::tag(*this), m_params->base, result);
        throw failedSearch(result, kBlockingSearch, systemError);
    }
    if (received == nullptr) {
        // The client library's success when another thread has seen the connection end.
        throw endedCall(m_connection.get(), {LDAP_SERVER_DOWN, systemError}, kBlockingSearch);
    }
    SearchResponse response(m_ldap.get(), MessagePtr(received, &ldap_msgfree));
    AttributeNames names(m_params->attributes);
    std::vector<SearchEntry> entries = response.entries(names);
    TAVO_LOG_VERBOSE(log::tag(*this), u"Found %1 entries", entries.size());
    if (response.unreadableEntries() != 0) {
        report.loss = SearchReport::Loss::unreadableEntry;
        report.lossDetail =
            utils::format(u"Entries whose DN can't be read are left out: %1.", response.unreadableEntries());
        TAVO_LOG_WARNING(log::tag(*this), u"%1", report.lossDetail);
        if (m_params->completeness == Completeness::required) {
            throw BaseError(LDAP_SIZELIMIT_EXCEEDED, kBlockingSearch, 0);
        }
    }
    return entries;
}

void SearchContext::asyncSearch(SearchHandler handler, int pageSize)
{
    if (pageSize <= 0) {
        assertFailure(positions::pageSizeNotPositive, "pageSize > 0");
        // The ticket that came for this start, unless it is that of a search that runs.
        if (!isAsyncSearchRunning()) {
            giveUpTurn();
        }
        // The report of a search that was started before is that search's, whose thread may be filling it.
        if (m_params->report && !m_asyncSearch.valid()) {
            *m_params->report = SearchReport();
            m_params->report->ldapCode =
                resultOfRefusedStart() == Result::ok ? LDAP_SUCCESS : LDAP_SIZELIMIT_EXCEEDED;
            m_params->report->loss = SearchReport::Loss::refusedStart;
            m_params->report->lossDetail = QStringLiteral("The page size is below 1.");
        }
        handler(resultOfRefusedStart(), {});
        return;
    }
    // A handler that has stopped its own search still runs on that search's thread.
    if (isAsyncSearchRunning() || runsOnThisThread()) {
        assertFailure(positions::searchAlreadyRunning, "!isAsyncSearchRunning()");
        handler(resultOfRefusedStart(), {});
        return;
    }
    // The thread of an earlier, stopped search may need the mutex to end.
    m_asyncSearch = {};

    auto installed = m_handler.lock();
    if (m_queue) {
        m_ticket = std::make_shared<SearchTicket>(m_queue);
    }
    *installed = std::move(handler);
    utils::ScopeGuard uninstall([&] {
        giveUpTurn();
        *installed = nullptr;
    });
    m_asyncSearch = std::async(std::launch::async, [self = shared_from_this(), pageSize]() mutable {
        const search_threads::SearchThread thread;
        SigpipeGuard::blockForThisThread();
        runningOnThisThread = self.get();
        // Moved out of the task, whose state is owned by the context's own future: nothing may be left that
        // keeps the context alive when the search has ended.
        const std::shared_ptr<SearchContext> context = std::move(self);
        context->readPages(pageSize);
    });
    uninstall.dismiss();
}

void SearchContext::readPages(int pageSize)
{
    const utils::ScopeGuard end([this] {
        giveUpTurn();
        // For the searches of sessions, whose handles are the library's to destroy.
        if (m_ticket && !isAsyncSearchRunning()) {
            search_threads::announceEnd();
        }
    });
    Pages pages(*this);
    try {
        PageLoop(pages, {m_ldap.get(), m_connection.get(), *m_params, m_attributeNames, m_timeout, pageSize,
                            m_ticket.get(), log::tag(*this)})
            .run();
    } catch (const std::exception& error) {
        reportBrokenOff(error.what());
        throw;
    } catch (...) {
        reportBrokenOff("it is of no known type");
        throw;
    }
}

/// By design: a refused start reads as an empty result, not as an error; but not as a complete one.
Result SearchContext::resultOfRefusedStart() const
{
    return m_params->completeness == Completeness::required ? Result::sizeLimitExceeded : Result::ok;
}

bool SearchContext::isAsyncSearchRunning() const { return static_cast<bool>(*m_handler.lock()); }

void SearchContext::stopAsyncSearch()
{
    SearchReport report;
    report.ldapCode = LDAP_USER_CANCELLED;
    stopAsyncSearch(std::move(report), {});
}

void SearchContext::stopAsyncSearch(SearchReport report, std::vector<SearchEntry> entries)
{
    SearchHandler handler;
    std::shared_ptr<SearchTicket> ticket;
    {
        auto installed = m_handler.lock();
        handler = std::exchange(*installed, nullptr);
        // Here, because another thread may start the next search from now on.
        ticket = m_ticket;
    }
    if (!handler) {
        return;
    }
    if (ticket) {
        ticket->giveUp();
    }
    const Result result = translateErrorCode(report.ldapCode);
    if (m_params->report) {
        *m_params->report = std::move(report);
    }
    handler(result, std::move(entries));
}

bool SearchContext::runsOnThisThread() const { return runningOnThisThread == this; }

void SearchContext::giveUpTurn()
{
    if (m_ticket) {
        m_ticket->giveUp();
    }
}

void SearchContext::reportBrokenOff(const char* reason)
{
    TAVO_LOG_WARNING(
        log::tag(*this), u"The search below [%1] was ended by an exception: %2", m_params->base, reason);
    if (m_onBrokenOff) {
        m_onBrokenOff();
    }
}

} // namespace tavo::ldap
