#include "ldap/private/range_follower.h"

#include <ldap/error.h>
#include <ldap/private/search_queue.h>
#include <ldap/private/search_request.h>
#include <ldap/ranged_values.h>

#include <algorithm>
#include <utility>

namespace tavo::ldap {

namespace {

/// Takes the first range of an attribute out of an entry, and drops others.
std::optional<Attribute> takeRange(SearchEntry& entry, const QString& attribute)
{
    std::vector<Attribute>& all = entry.attributes;
    const auto isRange = [&](const Attribute& candidate) {
        return ValueRange::parse(candidate.name, attribute).has_value();
    };
    const auto found = std::find_if(all.begin(), all.end(), isRange);
    if (found == all.end()) {
        return std::nullopt;
    }
    Attribute first = std::move(*found);
    all.erase(found);
    std::erase_if(all, isRange);
    return first;
}

/// Under the name that was asked for, of whatever case.
void setValues(SearchEntry& entry, const QString& attribute, std::vector<QString> values)
{
    const auto whole =
        std::find_if(entry.attributes.begin(), entry.attributes.end(), [&](const Attribute& candidate) {
            return candidate.name.compare(attribute, Qt::CaseInsensitive) == 0;
        });
    if (whole != entry.attributes.end()) {
        whole->values = std::move(values);
    } else {
        entry.attributes.push_back({attribute, std::move(values)});
    }
}

} // namespace

RangeFollower::RangeFollower(SearchExchange& exchange, const PagedSearch& search, const PageSource& source,
    const std::vector<AttributeName>& attributes)
    : m_exchange(exchange)
    , m_search(search)
    , m_source(source)
    , m_attributes(attributes)
{}

bool RangeFollower::complete(SearchEntry& entry)
{
    try {
        for (const AttributeName& attribute : m_attributes) {
            complete(entry, attribute.text);
        }
        return true;
    } catch (const BaseError& error) {
        if (error.ldapCode != LDAP_NO_SUCH_OBJECT) {
            throw;
        }
        return false;
    }
}

void RangeFollower::complete(SearchEntry& entry, const QString& attribute)
{
    std::optional<Attribute> range = takeRange(entry, attribute);
    if (!range) {
        return;
    }
    RangedValues values(attribute);
    values.add(std::move(*range));
    while (!values.isComplete() && isWanted()) {
        range = ask(entry.dn, attribute, values.next());
        if (!range) {
            return;
        }
        values.add(std::move(*range));
    }
    setValues(entry, attribute, values.take());
}

/// A search that nobody waits for any more has no need of whole entries, though it runs to its end.
bool RangeFollower::isWanted() const
{
    return m_search.isRunning() && (m_source.ticket == nullptr || !m_source.ticket->isGivenUp());
}

/// Nothing when the search was stopped meanwhile.
std::optional<Attribute> RangeFollower::ask(const QString& dn, const QString& attribute, QByteArray range)
{
    TAVO_LOG_VERBOSE(m_source.tag, u"Asking [%1] for %2", dn, range);
    const SearchParams params{dn, QString(), {}, SearchScope::base};
    const int messageId = m_exchange.send(params, {range.data(), nullptr}, nullptr);
    std::optional<SearchResponse> response = m_exchange.receive(messageId, params);
    if (!response) {
        return std::nullopt;
    }
    return response->range(attribute);
}

} // namespace tavo::ldap
