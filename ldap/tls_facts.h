#pragma once

#include <QByteArray>
#include <QString>

namespace tavo::ldap {

/// What a connection with TLS has agreed on. A plain value type.
struct TlsFacts
{
    /// In the words of the TLS library, such as `TLSv1.3` (OpenSSL) or `TLS1.3` (GnuTLS).
    QString version;

    /// The cipher suite, in the words of the TLS library.
    QString cipher;

    /// The server's certificate (X.509, DER), whether it has been verified or not.
    QByteArray certificate;
};

} // namespace tavo::ldap
