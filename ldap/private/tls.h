#pragma once

#include <ldap.h>

namespace tavo::ldap {

/// Sets how strictly the handle verifies certificates, and gives it a TLS context of its own that does so.
/// When its connection is secure, the context is otherwise what the host has configured.
/// \param isSecure whether the handle's connection uses TLS from the first byte
/// \throws BaseError
void setUpTls(LDAP* ld, bool isSecure, bool ignoreCertificateErrors);

/// Gives the handle of a plain connection the TLS context that the host has configured, for the StartTLS that
/// follows.
/// \throws BaseError; the handle then sends nothing more in the clear
void prepareStartTls(LDAP* ld);

/// Sees to it that nothing more is sent in the clear: the handle's connection ends, and where it had none it
/// has no server to connect to.
void refusePlainConnections(LDAP* ld);

/// Clears what earlier calls have left in this thread's OpenSSL error queue.
void clearTlsErrors();

/// Consumes one error of this thread's OpenSSL queue.
/// \throws TlsError when it is one of TLS, and so tells why the last call failed
void throwTlsErrorIfAny(int ldapCode, int systemError);

} // namespace tavo::ldap
