#include "ldap/private/page_loop.h"

#include <ldap/error.h>
#include <ldap/private/handle.h>
#include <ldap/private/search_queue.h>
#include <ldap/private/search_request.h>
#include <ldap/tavo_ldap_ini.h>
#include <tavo_utils/scope_guard.h>

#include <cerrno>
#include <ctime>
#include <utility>

namespace tavo::ldap {

namespace {

/// By design: minus one second, whatever the name says. The client library takes it as "wait until the result
/// is there", so the poll interval matters only when a call comes back without a message.
constexpr timeval kZeroTimeout{-1, 0};

constexpr timespec kPollInterval{0, 100'000'000};

void sleepPollInterval()
{
    timespec remaining = kPollInterval;
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}

} // namespace

PageLoop::PageLoop(PagedSearch& search, PageSource source)
    : m_search(search)
    , m_source(std::move(source))
    , m_cookie(m_source.ldap)
{}

void PageLoop::run()
{
    bool more = true;
    while (more && m_search.isRunning()) {
        ++m_page;
        try {
            more = fetchPage();
        } catch (const BaseError& error) {
            warnIfItReadsAsSuccess(error);
            m_search.finish(error.ldapCode, {});
        }
    }
}

/// False when the search has come to its end.
bool PageLoop::fetchPage()
{
    std::optional<SearchResponse> response = receivePage();
    if (!response) {
        m_search.finish(LDAP_USER_CANCELLED, {});
        return false;
    }
    if (ini().logResponseReferences) {
        response->logReferences();
    }
    std::vector<SearchEntry> entries = response->entries(m_source.params.attributes);
    TAVO_LOG_VERBOSE(m_source.tag, u"Found %1 entries on page %2", entries.size(), m_page);
    return deliver(*response, std::move(entries));
}

/// Nothing when the search was stopped, or was detached and would disturb another.
std::optional<SearchResponse> PageLoop::receivePage()
{
    SearchTicket* const ticket = m_source.ticket;
    if (ticket != nullptr && !ticket->beginPage()) {
        return std::nullopt;
    }
    const utils::ScopeGuard endPage([&] {
        if (ticket != nullptr) {
            ticket->endPage();
        }
    });
    TAVO_LOG_VERBOSE(m_source.tag, u"Getting page %1 (cookie size: %2)", m_page, m_cookie.size());
    const int messageId = sendRequest();
    TAVO_LOG_VERBOSE(m_source.tag, u"Polling message id %1 for page %2", messageId, m_page);
    return pollResult(messageId);
}

int PageLoop::sendRequest()
{
    const ControlPtr pageControl = m_cookie.createPageControl(m_source.pageSize);
    LDAPControl* controls[] = {pageControl.get(), nullptr};
    SearchRequest request(m_source.params, m_source.attributeNames, m_source.timeout);
    int messageId = 0;
    const int rc = ldap_search_ext(m_source.ldap, request.base.constData(), request.scope, request.filter(),
        request.attributes(), /*attrsonly*/ 0, controls, nullptr, &request.timeout, /*sizelimit*/ 0,
        &messageId);
    const int systemError = errno;
    if (rc != LDAP_SUCCESS) {
        throw BaseError(rc, QStringLiteral("ldap_search_ext"), systemError);
    }
    return messageId;
}

/// The page's result; nothing when the search was stopped meanwhile.
std::optional<SearchResponse> PageLoop::pollResult(int messageId)
{
    LDAP* ld = m_source.ldap;
    while (m_search.isRunning()) {
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

BaseError PageLoop::resultError(LDAPMessage* message, int systemError) const
{
    int code = LDAP_SERVER_DOWN;
    if (message != nullptr) {
        const int rc = ldap_parse_result(
            m_source.ldap, message, &code, nullptr, nullptr, nullptr, nullptr, /*freeit*/ 1);
        code = rc != LDAP_SUCCESS ? rc : code;
    }
    return {code, QStringLiteral("ldap_result"), systemError};
}

/// By design: a result that the server calls a failure is one, whatever entries came with it. They are
/// few, and a short page would read as the end of the list.
void PageLoop::throwIfFailed(const FinalResult& result, int systemError) const
{
    if (result.code == LDAP_SUCCESS) {
        return;
    }
    logFailedSearch(m_source.tag, m_source.params.base, result);
    throw BaseError(result.code, QStringLiteral("ldap_result"), systemError);
}

/// Hands the page on; false when it was the last.
bool PageLoop::deliver(SearchResponse& response, std::vector<SearchEntry> entries)
{
    m_received += entries.size();
    // By design: a page shorter than asked for ends the search, even with a live cookie.
    if (static_cast<int>(entries.size()) < m_source.pageSize) {
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
    m_search.deliver(std::move(entries));
    return true;
}

void PageLoop::finish(std::vector<SearchEntry> entries)
{
    try {
        m_search.finish(LDAP_SUCCESS, std::move(entries));
    } catch (const BaseError& error) {
        // By design: the handler has had its final call, so nobody is left who could be told.
        TAVO_LOG_WARNING(m_source.tag, u"The last page of the search below [%1] was lost in its handler: %2",
            m_source.params.base, error.message());
    }
}

bool PageLoop::saysThatMoreRemains(SearchResponse& response) const
{
    try {
        return hasLivePageCookie(m_source.ldap, response.controls());
    } catch (const BaseError&) {
        // The page is the last one, and good, whatever came along with it.
        return false;
    }
}

/// By design: an error without a code reads as success. Only a handler throws one, from an intermediate call.
void PageLoop::warnIfItReadsAsSuccess(const BaseError& error) const
{
    if (error.ldapCode == LDAP_SUCCESS) {
        TAVO_LOG_WARNING(m_source.tag,
            u"Entries are missing: an error without a code on page %1, which reads as a success, "
            u"ends the search below [%2] with filter [%3]; %4 entries were received: %5",
            m_page, m_source.params.base, m_source.params.filter, m_received, error.message());
    }
}

void PageLoop::warnIfCutShort(SearchResponse& response) const
{
    if (saysThatMoreRemains(response)) {
        TAVO_LOG_WARNING(m_source.tag,
            u"Entries are missing: the server says that it has more, but page %1 is shorter than "
            u"the %2 entries asked for, which ends the search below [%3] with filter [%4]; "
            u"%5 entries were received. "
            u"Ask for pages no larger than the server's limit, or raise that limit.",
            m_page, m_source.pageSize, m_source.params.base, m_source.params.filter, m_received);
    }
}

void PageLoop::warnIfNotPaged(const ControlsPtr& controls) const
{
    if (!hasPageControl(controls)) {
        TAVO_LOG_WARNING(m_source.tag,
            u"Entries may be missing: page %1 is full (%2 entries asked for) but came without the server's "
            u"page control, which ends the search below [%3] with filter [%4]; %5 entries were received. "
            u"Check that the server supports paged results (1.2.840.113556.1.4.319) for this account.",
            m_page, m_source.pageSize, m_source.params.base, m_source.params.filter, m_received);
    }
}

} // namespace tavo::ldap
