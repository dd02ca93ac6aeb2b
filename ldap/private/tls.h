#pragma once

#include <ldap/connection_options.h>
#include <ldap/tls_facts.h>

#include <ldap.h>

#include <optional>

namespace tavo::ldap {

/// Sets how strictly the handle verifies certificates, and gives it a TLS context of its own that does so.
/// When its connection is secure, the context is otherwise what the host has configured.
/// \param isSecure whether the handle's connection uses TLS from the first byte
/// \param options what is the connection's own, in place of the host's; null for nothing
/// \throws BaseError
void setUpTls(
    LDAP* ld, bool isSecure, bool ignoreCertificateErrors, const ConnectionOptions* options = nullptr);

/// Whether the connection uses TLS from the first byte, by its URL or because the program has said so for all.
bool startsWithTls(LDAP* ld, bool isSecure);

/// Gives the handle of a plain connection the TLS context that the host has configured, for the StartTLS that
/// follows.
/// \param options as in `setUpTls`
/// \throws BaseError; the handle then sends nothing more in the clear
void prepareStartTls(LDAP* ld, const ConnectionOptions* options = nullptr);

/// What the handle's connection has agreed on; nothing without TLS.
/// \throws std::bad_alloc
std::optional<TlsFacts> tlsFacts(LDAP* ld);

/// Whether the handle's connection speaks this version or a newer one. A version without a known name is none.
bool speaksAtLeast(LDAP* ld, TlsVersion version);

/// Sees to it that nothing more is sent in the clear: the handle's connection ends, and where it had none it
/// has no server to connect to.
void refusePlainConnections(LDAP* ld);

/// Gives the handle no server to connect to when its connection, if it has one, is lost.
/// \throws BaseError
void connectNoMore(LDAP* ld);

/// Clears what earlier calls have left in this thread's OpenSSL error queue.
void clearTlsErrors();

/// Consumes one error of this thread's OpenSSL queue.
/// \throws TlsError when it is one of TLS, and so tells why the last call failed
void throwTlsErrorIfAny(int ldapCode, int systemError);

} // namespace tavo::ldap
