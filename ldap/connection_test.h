#pragma once

#include <ldap/connection_options.h>
#include <ldap/export.h>
#include <ldap/settings.h>
#include <tavo_utils/move_only_func.h>

#include <future>

namespace tavo::ldap {

/// Whether the server can be reached (with TLS if the settings ask for it) and accepts the credentials.
/// Blocks.
///
/// The reason of a failure is logged at debug level. Nothing is searched: what the account may read isn't
/// tested.
TAVO_LDAP_EXPORT bool testLdapConnection(const Settings& settings);

/// The same over a connection with options.
TAVO_LDAP_EXPORT bool testLdapConnection(const Settings& settings, const ConnectionOptions& options);

/// Runs `testLdapConnection` on a thread of its own and calls `onFailure` there when the test fails. Nothing
/// is called when it succeeds.
///
/// Destroying the returned future waits for the test. So neither `onFailure` nor its destruction may destroy
/// the future: the test's thread would wait for itself, which ends the process. `get()` rethrows what
/// `onFailure` threw and any failure that is no `BaseError`; with an empty `onFailure` a failed test gives
/// `std::bad_function_call`.
/// \throws std::system_error when no thread can be had
TAVO_LDAP_EXPORT std::future<void> testLdapConnectionAsync(
    const Settings& settings, utils::MoveOnlyFunc<void()> onFailure);

/// The same over a connection with options. To drop the future without waiting for the server, interrupt it.
TAVO_LDAP_EXPORT std::future<void> testLdapConnectionAsync(
    const Settings& settings, const ConnectionOptions& options, utils::MoveOnlyFunc<void()> onFailure);

} // namespace tavo::ldap
