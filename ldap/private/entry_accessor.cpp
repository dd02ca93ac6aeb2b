#include "ldap/private/entry_accessor.h"

#include <ldap/error.h>
#include <ldap/private/handle.h>
#include <ldap/ranged_values.h>
#include <tavo_utils/log.h>
#include <tavo_utils/scope_guard.h>

#include <algorithm>
#include <utility>

namespace tavo::ldap {

LdapSearchEntryAccessor::LdapSearchEntryAccessor(LDAP* ld, LDAPMessage* entry)
    : m_ldap(ld)
    , m_entry(entry)
{}

void LdapSearchEntryAccessor::read(SearchEntry& entry, AttributeNames& names)
{
    entry.dn = getDn();
    const bool isForAll = names.requested().empty();
    const auto carried = isForAll ? getAttributeNames(names) : std::vector<AttributeName>();
    const auto& wanted = isForAll ? carried : names.requested();
    entry.attributes.reserve(wanted.size());
    for (const AttributeName& name : wanted) {
        try {
            entry.attributes.push_back(getAttribute(name));
        } catch (const BaseError& error) {
            TAVO_LOG_VERBOSE(
                log::tag(*this), u"No attribute [%1] for [%2]: [%3]", name.text, entry.dn, error.what());
        }
    }
}

QString LdapSearchEntryAccessor::getDn()
{
    char* dn = ldap_get_dn(m_ldap, m_entry);
    if (dn == nullptr) {
        throw BaseError(getLdapError(m_ldap), QStringLiteral("ldap_get_dn"), 0);
    }
    const utils::ScopeGuard freeDn([&] { ldap_memfree(dn); });
    return QString::fromUtf8(dn);
}

std::vector<AttributeName> LdapSearchEntryAccessor::getAttributeNames(AttributeNames& names)
{
    std::vector<AttributeName> carried;
    // By design: the iteration's element is never passed to ber_free, only the names are released; it costs
    // 80 bytes for each entry that is read without a list of attributes.
    BerElement* ber = nullptr;
    char* name = ldap_first_attribute(m_ldap, m_entry, &ber);
    while (name != nullptr) {
        {
            const utils::ScopeGuard freeName([&] { ldap_memfree(name); });
            carried.push_back(names.sent(name));
        }
        name = ldap_next_attribute(m_ldap, m_entry, ber);
    }
    const int code = getLdapError(m_ldap);
    // The client library reports the end of the list as a decoding error.
    if (code != LDAP_SUCCESS && code != LDAP_DECODING_ERROR) {
        TAVO_LOG_VERBOSE(log::tag(*this), u"ldap_next_attribute error: %1", BaseError::ldapErrorString(code));
    }
    return carried;
}

Attribute LdapSearchEntryAccessor::getAttribute(const AttributeName& name)
{
    Attribute attribute{name.text, {}};
    berval** values = ldap_get_values_len(m_ldap, m_entry, name.key.constData());
    if (values == nullptr) {
        return attribute;
    }
    const utils::ScopeGuard freeValues([&] { ldap_value_free_len(values); });
    attribute.values.reserve(static_cast<std::size_t>(ldap_count_values_len(values)));
    for (berval** value = values; *value != nullptr; ++value) {
        const auto length = (*value)->bv_val != nullptr ? static_cast<qsizetype>((*value)->bv_len) : 0;
        attribute.values.push_back(QString::fromUtf8((*value)->bv_val, length));
    }
    return attribute;
}

Attribute LdapSearchEntryAccessor::getRange(const QString& name)
{
    BerElement* ber = nullptr;
    char* description = ldap_first_attribute(m_ldap, m_entry, &ber);
    const utils::ScopeGuard freeIterator([&] { ber_free(ber, /*freebuf*/ 0); });
    while (description != nullptr) {
        {
            const utils::ScopeGuard freeDescription([&] { ldap_memfree(description); });
            const AttributeName carried{QByteArray(description)};
            if (ValueRange::parse(carried.text, name)) {
                return getAttribute(carried);
            }
        }
        description = ldap_next_attribute(m_ldap, m_entry, ber);
    }
    return {name, {}};
}

void LdapSearchEntryAccessor::addRanges(SearchEntry& entry, const std::vector<AttributeName>& attributes)
{
    for (const AttributeName& attribute : attributes) {
        const QString& name = attribute.text;
        const bool isThere =
            std::any_of(entry.attributes.begin(), entry.attributes.end(), [&](const Attribute& read) {
                return read.name.compare(name, Qt::CaseInsensitive) == 0 && !read.empty();
            });
        if (!isThere) {
            if (Attribute range = getRange(name); !range.empty()) {
                entry.attributes.push_back(std::move(range));
            }
        }
    }
}

} // namespace tavo::ldap
