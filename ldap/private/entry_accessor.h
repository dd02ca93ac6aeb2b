#pragma once

#include <ldap/entry.h>
#include <ldap/private/attribute_names.h>

#include <ldap.h>

#include <QString>

#include <vector>

namespace tavo::ldap {

/// Reads one entry message; owns neither the handle nor the message and lives only for the reading.
class LdapSearchEntryAccessor
{
public:
    LdapSearchEntryAccessor(LDAP* ld, LDAPMessage* entry);

    /// Fills an empty entry with the requested attributes, in that order and spelling; with all that the message
    /// carries when none is requested.
    /// \throws BaseError when the DN can't be read
    void read(SearchEntry& entry, AttributeNames& names);

    /// \throws BaseError
    QString getDn();

    /// The names of the attributes that the entry carries, in the server's order and spelling.
    std::vector<AttributeName> getAttributeNames(AttributeNames& names);

    /// The attribute with its values; without any when the entry lacks it.
    Attribute getAttribute(const AttributeName& name);

    /// The first range of the attribute's values (`member;range=0-1499`) that the entry carries; the
    /// attribute without values when it carries none.
    Attribute getRange(const QString& name);

    /// Appends to the entry that was read of this message the ranges of those attributes that it has without
    /// values.
    void addRanges(SearchEntry& entry, const std::vector<AttributeName>& attributes);

private:
    LDAP* m_ldap;
    LDAPMessage* m_entry;
};

} // namespace tavo::ldap
