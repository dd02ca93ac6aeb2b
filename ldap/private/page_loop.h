#pragma once

#include <ldap/entry.h>
#include <ldap/private/page_cookie.h>
#include <ldap/private/search_response.h>
#include <ldap/search_params.h>
#include <tavo_utils/log.h>

#include <ldap.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <vector>

namespace tavo::ldap {

class BaseError;
class SearchTicket;

/// The search whose pages a page loop reads, as the loop's thread sees it. Another thread may stop it at any
/// time.
class PagedSearch
{
public:
    virtual ~PagedSearch() = default;

    /// Whether the final call hasn't begun.
    virtual bool isRunning() const = 0;

    /// Hands on a full page of several.
    virtual void deliver(std::vector<SearchEntry> page) = 0;

    /// Makes the final call, unless the search has been stopped.
    virtual void finish(int ldapCode, std::vector<SearchEntry> lastPage) = 0;
};

/// What a page loop asks for, and where. All of it belongs to the search.
struct PageSource
{
    LDAP* ldap;
    const SearchParams& params;
    const std::vector<char*>& attributeNames;
    std::chrono::seconds timeout;
    int pageSize;

    /// Null for a search that waits for no other.
    SearchTicket* ticket;

    /// The search's, under which the loop logs.
    log::Tag tag;
};

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
    std::optional<SearchResponse> pollResult(int messageId);
    BaseError resultError(LDAPMessage* message, int systemError) const;
    void throwIfFailed(const FinalResult& result, int systemError) const;
    bool deliver(SearchResponse& response, std::vector<SearchEntry> entries);
    void finish(std::vector<SearchEntry> entries);

    bool saysThatMoreRemains(SearchResponse& response) const;
    void warnIfItReadsAsSuccess(const BaseError& error) const;
    void warnIfCutShort(SearchResponse& response) const;
    void warnIfNotPaged(const ControlsPtr& controls) const;

    PagedSearch& m_search;
    PageSource m_source;
    Cookie m_cookie;
    int m_page = 0;
    std::size_t m_received = 0;
};

} // namespace tavo::ldap
