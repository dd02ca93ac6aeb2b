#include "ldap/private/page_loop.h"

#include <ldap/error.h>
#include <ldap/private/failure_details.h>
#include <ldap/private/range_follower.h>
#include <ldap/private/search_queue.h>
#include <tavo_utils/formatter.h>
#include <tavo_utils/scope_guard.h>

#include <ldap.h>

#include <algorithm>
#include <new>
#include <utility>

namespace tavo::ldap {

namespace {

/// A text about a loss; empty when there is no memory for it, since the loss itself matters more.
template <class... Arguments>
QString describe(QStringView pattern, const Arguments&... arguments)
{
    try {
        return utils::format(pattern, arguments...);
    } catch (const std::bad_alloc&) {
        return {};
    }
}

PageState stateAfter(LDAP* ld, SearchResponse& response)
{
    try {
        return pageState(ld, response.controls());
    } catch (const BaseError&) {
        return PageState::unreadable;
    }
}

} // namespace

PageLoop::PageLoop(PagedSearch& search, PageSource source)
    : m_search(search)
    , m_source(std::move(source))
    , m_exchange(m_search, m_source)
    , m_names(m_source.params.attributes, m_source.params.rangedAttributes)
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
            fail(error);
        }
    }
}

/// False when the search has come to its end.
bool PageLoop::fetchPage()
{
    std::optional<SearchResponse> response = receivePage();
    if (!response) {
        m_search.finish(cancelledReport(m_source.connection), {});
        return false;
    }
    std::vector<SearchEntry> entries = response->entries(m_names);
    TAVO_LOG_VERBOSE(m_source.tag, u"Found %1 entries on page %2", entries.size(), m_page);
    noteUnreadableEntries(*response);
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
    return m_exchange.receive(messageId, m_source.params);
}

int PageLoop::sendRequest()
{
    const ControlPtr pageControl = m_cookie.createPageControl(m_source.pageSize);
    LDAPControl* controls[] = {pageControl.get(), nullptr};
    return m_exchange.send(m_source.params, m_source.attributeNames, controls);
}

/// Hands the page on; false when it was the last.
bool PageLoop::deliver(SearchResponse& response, std::vector<SearchEntry> entries)
{
    const std::size_t count = entries.size();
    m_received += count;
    // By design: a page shorter than asked for ends the search, even with a live cookie.
    bool isLast = static_cast<int>(count) < m_source.pageSize;
    if (isLast) {
        noteIfCutShort(response);
    } else {
        const ControlsPtr controls = response.controls();
        m_cookie.update(controls);
        isLast = m_cookie.size() == 0;
        if (isLast) {
            noteIfNotPaged(controls);
        }
    }
    completeRanges(entries);
    if (isLast || mustFail()) {
        finish(std::move(entries));
        return false;
    }
    m_search.deliver(std::move(entries));
    return true;
}

void PageLoop::completeRanges(std::vector<SearchEntry>& entries)
{
    if (m_source.params.rangedAttributes.empty()) {
        return;
    }
    RangeFollower follower(m_exchange, m_search, m_source, m_names.ranged());
    std::vector<SearchEntry> whole;
    whole.reserve(entries.size());
    for (SearchEntry& entry : entries) {
        if (follower.complete(entry)) {
            whole.push_back(std::move(entry));
        } else {
            noteVanishedEntry(entry.dn);
        }
    }
    entries = std::move(whole);
}

void PageLoop::finish(std::vector<SearchEntry> entries)
{
    if (mustFail()) {
        m_report.ldapCode = LDAP_SIZELIMIT_EXCEEDED;
        entries.clear();
    }
    try {
        m_search.finish(std::move(m_report), std::move(entries));
    } catch (const BaseError& error) {
        // By design: the handler has had its final call, so nobody is left who could be told.
        TAVO_LOG_WARNING(m_source.tag, u"The last page of the search below [%1] was lost in its handler: %2",
            m_source.params.base, error.message());
    }
}

void PageLoop::fail(const BaseError& error)
{
    noteIfItReadsAsSuccess(error);
    fillReport(m_report, error);
    if (error.ldapCode == LDAP_SUCCESS && mustFail()) {
        m_report.ldapCode = LDAP_SIZELIMIT_EXCEEDED;
    }
    m_search.finish(std::move(m_report), {});
}

/// Whether the caller wants all or nothing, and can't have all.
bool PageLoop::mustFail() const
{
    return m_source.params.completeness == Completeness::required && m_report.isIncomplete();
}

/// The first loss counts: the later ones may follow from it. The words have all of them, up to a limit.
void PageLoop::note(SearchReport::Loss loss, const QString& detail)
{
    constexpr qsizetype kMostWords = 4096;
    if (!m_report.isIncomplete()) {
        m_report.loss = loss;
        m_report.lossDetail = detail;
    } else if (m_report.lossDetail.size() < kMostWords) {
        m_report.lossDetail = describe(u"%1 %2", m_report.lossDetail, detail);
    }
}

/// By design: an error without a code reads as success. Only a handler throws one, from an intermediate call.
void PageLoop::noteIfItReadsAsSuccess(const BaseError& error)
{
    if (error.ldapCode == LDAP_SUCCESS) {
        const QString detail =
            describe(u"Entries are missing: an error without a code on page %1, which reads as a success, "
                     u"ends the search below [%2] with filter [%3]; %4 entries were received: %5",
                m_page, m_source.params.base, m_source.params.filter, m_received, error.message());
        TAVO_LOG_WARNING(m_source.tag, u"%1", detail);
        note(SearchReport::Loss::handlerError, detail);
    }
}

void PageLoop::noteUnreadableEntries(const SearchResponse& response)
{
    if (response.unreadableEntries() != 0) {
        const QString detail = describe(u"Entries whose DN can't be read are left out of page %1: %2.",
            m_page, response.unreadableEntries());
        TAVO_LOG_WARNING(m_source.tag, u"%1", detail);
        note(SearchReport::Loss::unreadableEntry, detail);
    }
}

void PageLoop::noteVanishedEntry(const QString& dn)
{
    const QString detail =
        describe(u"[%1] is left out: it vanished from the directory before all its values were read.", dn);
    TAVO_LOG_WARNING(m_source.tag, u"%1", detail);
    note(SearchReport::Loss::vanishedEntry, detail);
}

void PageLoop::noteIfCutShort(SearchResponse& response)
{
    switch (stateAfter(m_source.ldap, response)) {
    case PageState::last:
        return;
    case PageState::unreadable:
        // Without a warning: the page is good, and most likely the last one.
        note(SearchReport::Loss::unreadablePageControl,
            describe(u"The page control of page %1, the last, can't be read.", m_page));
        return;
    case PageState::moreRemains:
        break;
    }
    const QString detail =
        describe(u"Entries are missing: the server says that it has more, but page %1 is shorter than "
                 u"the %2 entries asked for, which ends the search below [%3] with filter [%4]; "
                 u"%5 entries were received. "
                 u"Ask for pages no larger than the server's limit, or raise that limit.",
            m_page, m_source.pageSize, m_source.params.base, m_source.params.filter, m_received);
    TAVO_LOG_WARNING(m_source.tag, u"%1", detail);
    note(SearchReport::Loss::shortPage, detail);
}

void PageLoop::noteIfNotPaged(const ControlsPtr& controls)
{
    if (!hasPageControl(controls)) {
        const QString detail = describe(
            u"Entries may be missing: page %1 is full (%2 entries asked for) but came without the server's "
            u"page control, which ends the search below [%3] with filter [%4]; %5 entries were received. "
            u"Check that the server supports paged results (1.2.840.113556.1.4.319) for this account.",
            m_page, m_source.pageSize, m_source.params.base, m_source.params.filter, m_received);
        TAVO_LOG_WARNING(m_source.tag, u"%1", detail);
        note(SearchReport::Loss::unreadablePageControl, detail);
    }
}

} // namespace tavo::ldap
