#pragma once

#include <ldap/entry.h>
#include <ldap/private/attribute_names.h>
#include <ldap/private/paged_search.h>
#include <ldap/private/search_exchange.h>

#include <QByteArray>
#include <QString>

#include <optional>
#include <vector>

namespace tavo::ldap {

/// Reads the rest of the attributes that a server sends in ranges, for the entries of a page. Lives on the
/// search's thread and holds no lock.
class RangeFollower
{
public:
    /// All must outlive it.
    RangeFollower(SearchExchange& exchange, const PagedSearch& search, const PageSource& source,
        const std::vector<AttributeName>& attributes);

    /// Replaces the first range of an attribute, which `SearchResponse::entries` has put behind the entry's
    /// attributes, by all values. Asks for nothing once the search is stopped or detached.
    /// \return false when the entry has vanished
    /// \throws BaseError when the values can't be read
    bool complete(SearchEntry& entry);

private:
    bool isWanted() const;
    void complete(SearchEntry& entry, const QString& attribute);
    std::optional<Attribute> ask(const QString& dn, const QString& attribute, QByteArray range);

    SearchExchange& m_exchange;
    const PagedSearch& m_search;
    const PageSource& m_source;
    const std::vector<AttributeName>& m_attributes;
};

} // namespace tavo::ldap
