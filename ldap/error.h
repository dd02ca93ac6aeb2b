#pragma once

#include <ldap/export.h>
#include <tavo_utils/exception.h>

#include <QString>

namespace tavo::ldap {

/// A failed LDAP operation: what was done, what LDAP said, what the operating system said.
///
/// Catch this type to handle every failure of the library. Catch the derived ones first where the remedy
/// differs: `InvalidCredentialsError` (ask for another name or password), `TlsError` (check certificates).
/// Creating an error writes its `message()` to the log at debug level and leaves `errno` unchanged.
class TAVO_LDAP_EXPORT BaseError : public utils::Exception
{
public:
    /// \param ldapCode the LDAP result code, `LDAP_*`
    /// \param context the step that failed, such as "bind"; may be empty
    /// \param systemError the `errno` of the failure, 0 for none
    BaseError(int ldapCode, QString context, int systemError);

    /// The client library's text for a result code; empty if it has none.
    static QString ldapErrorString(int ldapCode);

    /// `context: LDAP text (system text)`; missing parts are left out.
    QString message() const override;

    /// The LDAP result code: positive from the server (RFC 4511, section 4.1.9), negative from the client
    /// library.
    int ldapCode;

    /// The step that failed; may be empty.
    QString context;

    /// The operating system's error code, read right after the failing call; 0 when there is none.
    int systemError;
};

/// The server refused the name or the password of a bind (result code 49, RFC 4513).
class TAVO_LDAP_EXPORT InvalidCredentialsError : public BaseError
{
public:
    explicit InvalidCredentialsError(QString user);

    /// "Invalid credentials for user " and the DN.
    QString message() const override;

    /// The DN of the refused bind.
    QString user;
};

/// A TLS failure that OpenSSL explained: a certificate that can't be verified, a peer that doesn't speak TLS.
///
/// Only a client library built on OpenSSL leaves such an explanation. With one built on GnuTLS the same
/// failures arrive as `BaseError`.
class TAVO_LDAP_EXPORT TlsError : public BaseError
{
public:
    /// \param sslError an error code of OpenSSL's queue, as `ERR_get_error` returns it
    TlsError(unsigned long sslError, int ldapCode, int systemError);

    /// OpenSSL's error code; its text is in the log.
    unsigned long sslError;
};

} // namespace tavo::ldap
