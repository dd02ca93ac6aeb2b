#include "ldap/private/search_request.h"

#include <ldap/private/positions.h>
#include <tavo_utils/assert.h>

#include <utility>

namespace tavo::ldap {

namespace {

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

} // namespace

std::vector<char*> attributeNamePointers(std::vector<QByteArray>& attributes)
{
    std::vector<char*> names;
    if (!attributes.empty()) {
        names.reserve(attributes.size() + 1);
        for (QByteArray& name : attributes) {
            names.push_back(name.data());
        }
        names.push_back(nullptr);
    }
    return names;
}

SearchRequest::SearchRequest(
    const SearchParams& params, std::vector<char*> names, std::chrono::seconds timeLimit)
    : base(params.base.toUtf8())
    , filterText(params.filter.toUtf8())
    , scope(toLdapSearchScope(params.scope))
    , attributeNames(std::move(names))
    , timeout{static_cast<decltype(timeval::tv_sec)>(timeLimit.count()), 0}
{}

} // namespace tavo::ldap
