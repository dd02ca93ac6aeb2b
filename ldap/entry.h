#pragma once

#include <ldap/export.h>

#include <QString>

#include <vector>

namespace tavo::ldap {

/// One attribute of a directory entry, as text.
///
/// Values are decoded from UTF-8. Bytes that are not valid UTF-8 become U+FFFD, so binary attributes don't
/// survive. A plain value type.
struct Attribute
{
    /// The attribute description exactly as it was requested, or as the server named it; case is kept.
    QString name;

    /// The values in the server's order; may be empty.
    std::vector<QString> values;

    /// Whether there is no value; the name is not looked at.
    TAVO_LDAP_EXPORT bool empty() const;

    /// `mail: x`, `mail: none` or `member: { x, y }`.
    TAVO_LDAP_EXPORT QString toString() const;
};

/// One directory entry as a search returned it. A plain value type.
struct SearchEntry
{
    /// The distinguished name as the server sent it (RFC 4514).
    QString dn;

    /// The attributes in the order in which they were read. A requested attribute that the entry lacks is
    /// present without values; the same name may occur twice.
    std::vector<Attribute> attributes;

    /// A copy of the first attribute named `name`, or an attribute of that name without values.
    ///
    /// Names are compared code unit by code unit: use the spelling that the search requested.
    TAVO_LDAP_EXPORT Attribute getAttribute(const QString& name) const;

    /// The first value of the first attribute that has this name and any value; a null string when there is
    /// none. Unlike `getAttribute` it looks past namesakes without values.
    TAVO_LDAP_EXPORT QString getAttributeFirstValue(const QString& name) const;

    /// `cn=a,dc=b: { cn: a, mail: none }`, or `cn=a,dc=b: none` without attributes.
    TAVO_LDAP_EXPORT QString toString() const;
};

} // namespace tavo::ldap
