#pragma once

#include <ldap/connection_options.h>
#include <ldap/private/handle.h>
#include <ldap/private/wire/connection.h>
#include <tavo_utils/url.h>

#include <memory>

namespace tavo::ldap {

/// A handle whose connection has options.
struct ConnectedHandle
{
    LdapHandle handle;
    std::shared_ptr<Connection> connection;
};

/// Connects to the server of the URL, or to the first of a list that can be connected to, TLS included if the
/// connection has it from the first byte. Blocks.
/// \throws BaseError, TlsError
ConnectedHandle connectHandle(
    const utils::Url& url, bool isSecure, bool ignoreCertificateErrors, const ConnectionOptions& options);

/// After a handshake: ends the connection if it has TLS of a version that its options don't allow.
/// \throws BaseError
void requireTlsVersion(LDAP* ld, Connection& connection);

} // namespace tavo::ldap
