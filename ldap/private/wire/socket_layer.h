#pragma once

#include <ldap.h>

namespace tavo::ldap {

/// Puts a layer of the library's own between the client library and the sockets of the handle's connections,
/// to close each of them exactly once. For a handle that hasn't connected yet; its duplicates share the layer.
///
/// The client library adds its access to the socket anew for each connection that it tries on a handle, and
/// takes none away. When such a connection ends, every one of them shuts down and closes the same number, which
/// another thread of the host may have been given meanwhile.
/// \throws BaseError
void addSocketLayer(LDAP* ld);

} // namespace tavo::ldap
