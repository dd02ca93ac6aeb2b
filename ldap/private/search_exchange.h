#pragma once

#include <ldap/private/paged_search.h>
#include <ldap/private/search_response.h>
#include <ldap/search_params.h>

#include <ldap.h>

#include <optional>
#include <vector>

namespace tavo::ldap {

/// Asks the server of a paged search: one request, one answer. Lives on the search's thread and holds no lock
/// while it waits.
class SearchExchange
{
public:
    /// Both must outlive it.
    SearchExchange(const PagedSearch& search, const PageSource& source);

    /// \param controls of the request, ended by a null pointer; may be null
    /// \return the number of the request
    /// \throws BaseError
    int send(const SearchParams& params, const std::vector<char*>& attributeNames, LDAPControl** controls);

    /// Waits for the answer; nothing when the search was stopped meanwhile.
    /// \throws BaseError, with the server's words, also for an answer that says that the request failed
    std::optional<SearchResponse> receive(int messageId, const SearchParams& params);

private:
    const PagedSearch& m_search;
    const PageSource& m_source;
};

} // namespace tavo::ldap
