#pragma once

#include <ldap.h>

#include <memory>

namespace tavo::ldap {

class Connection;

/// Puts two layers of the library's own into the connections of the handle, which its duplicates share. For a
/// handle that hasn't connected yet.
///
/// Below TLS, one between the client library and the socket: it reads ahead, writes without raising SIGPIPE,
/// and closes each socket exactly once. The client library adds its own access to the socket anew for each
/// connection that it tries on a handle, and takes none away. When such a connection ends, every one of them
/// would shut down and close the same number, which another thread of the host may have been given meanwhile.
///
/// Above TLS, one that ends the connection (`EPROTO`) before a message that would end the process.
/// \throws BaseError
void addLayers(LDAP* ld);

/// The same for a handle that has been given a socket and connects no more. Its time limits are kept by the layer
/// below TLS, its limits of size by the one above (`EMSGSIZE`).
/// \throws BaseError
void addLayers(LDAP* ld, const std::shared_ptr<Connection>& connection);

} // namespace tavo::ldap
