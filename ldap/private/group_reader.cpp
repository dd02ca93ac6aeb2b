#include "ldap/private/group_reader.h"

#include <ldap/dn.h>

#include <utility>

namespace tavo::ldap {

namespace {

/// As `SearchEntry::getAttribute` would give them, which copies.
std::vector<QString> takeValues(SearchEntry& entry, const QString& name)
{
    for (Attribute& attribute : entry.attributes) {
        if (attribute.name == name) {
            return std::move(attribute.values);
        }
    }
    return {};
}

} // namespace

void GroupReader::warnOfFailure(const log::Tag& tag, Result result)
{
    TAVO_LOG_WARNING(tag, u"Groups fetching error: %1", toString(result));
}

void GroupReader::logCount(const log::Tag& tag, std::size_t count)
{
    TAVO_LOG_VERBOSE(tag, u"Found %1 groups", count);
}

void GroupReader::read(const log::Tag& /*tag*/, SearchEntry entry, std::vector<Group>& groups) const
{
    QString name = dnFirstItem(entry.dn);
    groups.push_back({std::move(entry.dn), std::move(name), takeValues(entry, memberAttribute)});
}

} // namespace tavo::ldap
