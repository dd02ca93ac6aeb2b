#pragma once

#include <ldap/connect_failure.h>
#include <ldap/export.h>
#include <tavo_utils/exception.h>

#include <QString>

namespace tavo::ldap {

/// A failed LDAP operation: what was done, what LDAP said, what the operating system said.
///
/// Catch this type to handle every LDAP failure. Catch the derived ones first where the remedy differs:
/// `InvalidCredentialsError` (ask for another name or password), `TlsError` (check certificates). A thread
/// that can't be started is a `std::system_error` instead.
///
/// Creating an error writes the text of `BaseError::message` to the log at debug level, also for a derived
/// type, and leaves `errno` unchanged.
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

    /// The operating system's error code, read right after the failing call; 0 when there is none. The client
    /// library may have changed it by then.
    int systemError;

    /// What the server says about the failure (the diagnostic message of RFC 4511, section 4.1.9); often the
    /// one text that helps, such as Active Directory's "data 775" for a locked account. Empty when the server
    /// says nothing or the failure isn't its own. The server's text, unchanged: make it safe where you show
    /// it. One that repeats the password of the failed bind is withheld.
    QString serverMessage;

    /// The longest part of the DN that the server knows, for result code 32 and its kin (RFC 4511, section
    /// 4.1.9); else mostly empty.
    QString matchedDn;

    /// Why there is no usable connection, where that is why the operation failed.
    ConnectFailure connectFailure;
};

/// The server refused the name or the password of a bind (result code 49, RFC 4513).
class TAVO_LDAP_EXPORT InvalidCredentialsError : public BaseError
{
public:
    explicit InvalidCredentialsError(QString user);

    /// "Invalid credentials for user " and the name.
    QString message() const override;

    /// The name that the bind was refused for: a DN, or another form that the server takes.
    QString user;
};

/// A TLS failure that OpenSSL explained, such as a certificate of an unknown authority.
///
/// Only a client library built on OpenSSL leaves such an explanation. With one built on GnuTLS the same
/// failures arrive as `BaseError`, and so do those that OpenSSL has no reason for, such as a certificate for
/// another host.
class TAVO_LDAP_EXPORT TlsError : public BaseError
{
public:
    /// \param sslError an error code of OpenSSL's queue, as `ERR_get_error` returns it
    TlsError(unsigned long sslError, int ldapCode, int systemError);

    /// OpenSSL's error code; its text is in the log at debug level.
    unsigned long sslError;
};

} // namespace tavo::ldap
