#pragma once

#include <ldap/entry.h>
#include <ldap/private/attribute_names.h>
#include <ldap/private/page_cookie.h>
#include <ldap/private/paged_search.h>
#include <ldap/private/search_exchange.h>
#include <ldap/private/search_response.h>
#include <ldap/search_report.h>

#include <QString>

#include <cstddef>
#include <optional>
#include <vector>

namespace tavo::ldap {

class BaseError;

/// Runs one paged search from its first request to its final call; lives on the search's thread.
class PageLoop
{
public:
    PageLoop(PagedSearch& search, PageSource source);

    void run();

private:
    bool fetchPage();
    std::optional<SearchResponse> receivePage();
    int sendRequest();
    bool deliver(SearchResponse& response, std::vector<SearchEntry> entries);
    void completeRanges(std::vector<SearchEntry>& entries);
    void finish(std::vector<SearchEntry> entries);
    void fail(const BaseError& error);

    bool mustFail() const;
    void note(SearchReport::Loss loss, const QString& detail);
    void noteIfItReadsAsSuccess(const BaseError& error);
    void noteUnreadableEntries(const SearchResponse& response);
    void noteVanishedEntry(const QString& dn);
    void noteIfCutShort(SearchResponse& response);
    void noteIfNotPaged(const ControlsPtr& controls);

    PagedSearch& m_search;
    PageSource m_source;
    SearchExchange m_exchange;
    AttributeNames m_names;
    Cookie m_cookie;
    SearchReport m_report;
    int m_page = 0;
    std::size_t m_received = 0;
};

} // namespace tavo::ldap
