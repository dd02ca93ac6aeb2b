#pragma once

#include <ldap/export.h>
#include <tavo_utils/exception.h>
#include <tavo_utils/url.h>

#include <QString>

#include <string>
#include <vector>

/// The client library's connection handle, as its own header declares it.
struct ldap;
using LDAP = struct ldap;

namespace tavo::ldap {

/// One attribute of a directory entry, as text.
///
/// Values are decoded from UTF-8; bytes that are not valid UTF-8 are replaced by U+FFFD, so binary attributes
/// don't survive. A plain value type.
struct Attribute
{
    /// The attribute description exactly as it was asked for or as the server named it; case is kept.
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
    /// Names are compared code unit for code unit: ask with the spelling that the search requested.
    TAVO_LDAP_EXPORT Attribute getAttribute(const QString& name) const;

    /// The first value of the first attribute that has this name and any value; a null string when there is
    /// none. Unlike `getAttribute` it looks past namesakes without values.
    TAVO_LDAP_EXPORT QString getAttributeFirstValue(const QString& name) const;

    /// `cn=a,dc=b: { cn: a, mail: none }`, or `cn=a,dc=b: none` without attributes.
    TAVO_LDAP_EXPORT QString toString() const;
};

/// A failed LDAP operation: what was done, what LDAP said, what the operating system said.
///
/// Catch this type to handle every failure of the library; catch the derived ones first where the remedy
/// differs: `InvalidCredentialsError` (ask for another name or password), `TlsError` (look at certificates).
/// Creating an error writes its `message()` to the log at debug level and leaves `errno` as it was.
class TAVO_LDAP_EXPORT BaseError : public utils::Exception
{
public:
    /// \param ldapCode the LDAP result code, `LDAP_*`
    /// \param context the step that failed, such as "bind"; may be empty
    /// \param systemError the `errno` of the failure, 0 for none
    BaseError(int ldapCode, QString context, int systemError);

    /// The client library's text for a result code; empty if it has none.
    static QString ldapErrorString(int ldapCode);

    /// `context: LDAP text (system text)`; what is not there is left out.
    QString message() const override;

    /// The LDAP result code: positive from the server (RFC 4511, section 4.1.9), negative from the client
    /// library.
    int ldapCode;

    /// The step that failed; may be empty.
    QString context;

    /// The operating system's error code read right after the failing call; 0 when there is none.
    int systemError;
};

/// The server refused the name or the password of a bind (result code 49, RFC 4513).
class TAVO_LDAP_EXPORT InvalidCredentialsError : public BaseError
{
public:
    explicit InvalidCredentialsError(QString user);

    /// "Invalid credentials for user " and the DN.
    QString message() const override;

    /// The DN with which the bind was tried.
    QString user;
};

/// A TLS failure that OpenSSL explained: a certificate that can't be verified, a peer that does not speak
/// TLS.
///
/// Only a client library built on OpenSSL leaves such an explanation; with one built on GnuTLS the same
/// failures arrive as `BaseError`.
class TAVO_LDAP_EXPORT TlsError : public BaseError
{
public:
    /// \param sslError an error code of OpenSSL's queue, as `ERR_get_error` returns it
    TlsError(unsigned long sslError, int ldapCode, int systemError);

    /// OpenSSL's error code; its text is in the log.
    unsigned long sslError;
};

/// Whether the URL asks for LDAP over TLS from the first byte (scheme `ldaps`, in any case). Thread-safe.
TAVO_LDAP_EXPORT bool isLdapsUrl(const utils::Url& url);

/// The values of the first relative name of a DN, in the client library's user-friendly form:
/// `cn=John Smith,ou=People,dc=corp` gives `John Smith`.
///
/// Bytes outside ASCII and a few inside come back escaped as `\XX`. Thread-safe.
/// \throws BaseError when the DN can't be parsed; with code 0 when it is empty
TAVO_LDAP_EXPORT QString dnFirstItem(const QString& dn);

/// Sets the client library's debug level for the whole process; 0 turns its output off.
///
/// The output goes where the client library sends it (its standard error stream), not to the log.
/// \throws BaseError when the client library refuses
TAVO_LDAP_EXPORT void enableOpenldapDebugOutput(int level);

} // namespace tavo::ldap
