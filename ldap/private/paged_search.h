#pragma once

#include <ldap/entry.h>
#include <ldap/search_params.h>
#include <ldap/search_report.h>
#include <tavo_utils/log.h>

#include <ldap.h>

#include <chrono>
#include <vector>

namespace tavo::ldap {

class Connection;
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
    virtual void finish(SearchReport report, std::vector<SearchEntry> lastPage) = 0;
};

/// What a page loop asks for, and where. All of it belongs to the search.
struct PageSource
{
    LDAP* ldap;

    /// Null for a connection without options.
    Connection* connection;

    const SearchParams& params;
    const std::vector<char*>& attributeNames;
    std::chrono::seconds timeout;
    int pageSize;

    /// Null for a search that waits for no other.
    SearchTicket* ticket;

    /// The search's, under which the loop logs.
    log::Tag tag;
};

} // namespace tavo::ldap
