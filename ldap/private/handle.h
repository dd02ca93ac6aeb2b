#pragma once

#include <ldap/private/wire/socket.h>
#include <tavo_utils/url.h>

#include <ldap.h>

#include <memory>

namespace tavo::ldap {

class Connection;

/// Owns one of the client library's connection handles.
using LdapHandle = std::unique_ptr<LDAP, void (*)(LDAP*)>;

/// Makes a configured handle that is not connected yet.
/// \throws BaseError
LdapHandle createHandle(const utils::Url& url, bool isSecure, bool ignoreCertificateErrors);

/// Makes a configured handle on the connected socket of a connection with options. It connects no more, also
/// when that socket is lost. TLS from the first byte is yet to begin.
/// \param url the one of the server, whose name its certificate must bear
/// \throws BaseError
LdapHandle createHandle(const QString& url, Socket socket, const std::shared_ptr<Connection>& connection,
    bool isSecure, bool ignoreCertificateErrors);

/// Makes a handle that shares the other's connection, which closes with the last of them.
/// \throws BaseError
LdapHandle duplicateHandle(LDAP* ld);

/// The deleter of every handle. Logs a failure, never throws.
void destroyHandle(LDAP* ld);

/// The result code of the handle's last operation; 0, after an assertion report, when it can't be read.
int getLdapError(LDAP* ld);

/// Whether either end of the connection is closed, or there is none.
bool hasLostConnection(LDAP* ld);

/// Makes the client library accept no further message from the handle's connection, whose server sends what
/// can't be decoded.
///
/// The client library never lets go of a request whose answer it can't decode. It would look at a second such
/// answer during any later operation, and then abort the process when the handle is destroyed.
void stopReading(LDAP* ld);

} // namespace tavo::ldap
