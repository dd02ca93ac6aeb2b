#include "ldap/private/collector.h"

#include <ldap/error.h>

#include <ldap.h>

#include <iterator>
#include <new>
#include <utility>

namespace tavo::ldap {

void Collector::operator()(Result result, std::vector<SearchEntry> page)
{
    const bool isKept = append(std::move(page));
    if (result != Result::moreResults) {
        m_result.set_value(isKept ? result : Result::connectError);
    } else if (!isKept) {
        // As an LDAP error, which becomes the final result; anything else would leave the caller waiting.
        throw BaseError(LDAP_NO_MEMORY, QStringLiteral("search"), 0);
    }
}

/// False when there is no memory for the page.
bool Collector::append(std::vector<SearchEntry> page)
{
    try {
        m_entries->insert(m_entries->end(), std::move_iterator(page.begin()), std::move_iterator(page.end()));
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

} // namespace tavo::ldap
