#pragma once

#include <ldap/dn.h>
#include <ldap/entry.h>
#include <ldap/error.h>
#include <ldap/export.h>
#include <ldap/utils.h> // for callers, who get it from here
#include <tavo_reflect/reflect.h>

#include <QByteArray>
#include <QString>

#include <string>
#include <tuple>
#include <vector>

namespace tavo::ldap {

/// A user of the directory. A plain value type.
struct User
{
    /// The entry's DN, as the server sent it.
    QString dn;

    /// The first value of the login attribute, as the server sent it: neither trimmed nor lower-cased.
    QString login;

    /// The display name, trimmed: `displayName`, else `gecos`, else what `dnFirstItem` gives for the DN, with
    /// its escapes.
    QString fullName;

    /// The first `mail` value, trimmed and lower-cased.
    QString email;

    /// Makes a user of an entry that was read with `attributes()` and the login attribute.
    ///
    /// Rejects nothing: fields that the entry lacks stay empty, and so does the login when
    /// `loginAttribute` is empty.
    /// \throws BaseError when there is no display name and the DN can't be parsed
    TAVO_LDAP_EXPORT static User fromSearchEntry(SearchEntry entry, const QByteArray& loginAttribute);

    /// The attributes that a search for users must request, besides the login attribute.
    TAVO_LDAP_EXPORT static const std::vector<QByteArray>& attributes();

    /// The JSON form: an object with the members "dn", "login", "fullName", "email".
    TAVO_LDAP_EXPORT std::string toString() const;
};

/// A group of the directory. A plain value type.
struct Group
{
    /// The entry's DN, as the server sent it.
    QString dn;

    /// What `dnFirstItem` gives for the DN, with its escapes.
    QString name;

    /// The values of the member attribute in the server's order; usually DNs.
    std::vector<QString> members;

    /// The JSON form: an object with the members "dn", "name", "members".
    TAVO_LDAP_EXPORT std::string toString() const;
};

} // namespace tavo::ldap

/// The fields of the JSON form of `User`, in its order.
template <>
struct tavo::reflect::Fields<tavo::ldap::User>
{
    using User = tavo::ldap::User;
    static constexpr auto value = std::make_tuple(field("dn", &User::dn), field("login", &User::login),
        field("fullName", &User::fullName), field("email", &User::email));
};

/// The fields of the JSON form of `Group`, in its order.
template <>
struct tavo::reflect::Fields<tavo::ldap::Group>
{
    using Group = tavo::ldap::Group;
    static constexpr auto value = std::make_tuple(
        field("dn", &Group::dn), field("name", &Group::name), field("members", &Group::members));
};
