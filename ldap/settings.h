#pragma once

#include <ldap/export.h>
#include <tavo_reflect/reflect.h>
#include <tavo_utils/url.h>

#include <QString>

#include <chrono>
#include <optional>
#include <string>
#include <tuple>

namespace tavo::ldap {

/// Everything that describes a directory: where it is, whose account reads it, how its entries map onto users
/// and groups.
///
/// A plain value type, not validated. Pass it to `testLdapConnection` or `createManagerOrThrow`.
struct Settings
{
    /// The server: `ldap://host[:port]`, or `ldaps://host[:port]` for TLS from the first byte.
    utils::Url uri;

    /// The DN of the simple bind (RFC 4513, section 5.1); empty, together with the password, for an
    /// anonymous one. Active Directory also takes `user@domain` and `DOMAIN\user`.
    QString adminDn;

    /// The password of the bind.
    QString adminPassword;

    /// The user attribute that holds the login; absent: the detected vendor's. A present but empty one is
    /// used as it is.
    std::optional<QString> loginAttribute;

    /// The object class of group entries; absent: the detected vendor's.
    std::optional<QString> groupObjectClass;

    /// The group attribute that lists the members; absent: the detected vendor's.
    std::optional<QString> memberAttribute;

    /// Time limit for searches. Stored for the caller; this library doesn't use it.
    std::chrono::seconds searchTimeout{30};

    /// The time limit that is sent with each search. For blocking searches also how long the client waits.
    std::chrono::seconds responseTimeout{30};

    /// Upgrade a plain connection with StartTLS before anything else is sent. Ignored for `ldaps`.
    bool startTls = false;

    /// Accept server certificates that can't be verified. Exposes the password to a man in the middle.
    bool ignoreCertificateErrors = false;

    /// Entries per page when users and groups are fetched. Active Directory caps it at 1000.
    int searchPageSize = 500;

    /// The JSON form: one object, members in the order above, absent optionals left out, durations as whole
    /// seconds. It contains the password in clear text: mask a copy before logging.
    TAVO_LDAP_EXPORT std::string toString() const;
};

} // namespace tavo::ldap

/// The fields of the JSON form of `Settings`, in its order.
template <>
struct tavo::reflect::Fields<tavo::ldap::Settings>
{
    using Settings = tavo::ldap::Settings;
    static constexpr auto value = std::make_tuple(field("uri", &Settings::uri),
        field("adminDn", &Settings::adminDn), field("adminPassword", &Settings::adminPassword),
        field("loginAttribute", &Settings::loginAttribute),
        field("groupObjectClass", &Settings::groupObjectClass),
        field("memberAttribute", &Settings::memberAttribute),
        field("searchTimeout", &Settings::searchTimeout),
        field("responseTimeout", &Settings::responseTimeout), field("startTls", &Settings::startTls),
        field("ignoreCertificateErrors", &Settings::ignoreCertificateErrors),
        field("searchPageSize", &Settings::searchPageSize));
};
