#pragma once

/// @file
/// Helpers of the library, together with the entry records, the error types and the DN helpers.

#include <ldap/dn.h>
#include <ldap/entry.h>
#include <ldap/error.h>
#include <ldap/export.h>
#include <tavo_utils/url.h>

namespace tavo::ldap {

/// Whether the URL asks for LDAP over TLS from the first byte (scheme `ldaps`, in any case). Thread-safe.
TAVO_LDAP_EXPORT bool isLdapsUrl(const utils::Url& url);

/// Sets the client library's debug level for the whole process; 0 turns its output off.
///
/// The output goes where the client library sends it (its standard error stream), not to the log. Creating a
/// manager sets the level again, to that of `tavo_ldap.ini`.
/// \throws BaseError when the client library refuses
TAVO_LDAP_EXPORT void enableOpenldapDebugOutput(int level);

} // namespace tavo::ldap
