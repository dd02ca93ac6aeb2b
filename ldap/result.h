#pragma once

#include <ldap/export.h>

#include <cstdint>
#include <string>

namespace tavo::ldap {

/// How a search, or the fetching of users or groups, went.
///
/// The many LDAP result codes (RFC 4511, section 4.1.9, and the client library's own negative ones) are
/// condensed to the few outcomes that a caller acts on. The numbers are stable and may be stored.
enum class Result : std::int32_t
{
    /// The search is complete; the call that brings it holds the last page.
    ok = 0,

    /// One full page of several; more calls follow. Never the last call of a search.
    moreResults = 1,

    /// The base of the search does not exist, the filter is malformed, or the server sent no result.
    noSuchObject = 2,

    /// The server cut the search at its size limit; nothing of the cut page is delivered.
    sizeLimitExceeded = 3,

    /// The server does not accept the credentials.
    invalidCredentials = 4,

    /// The search was stopped, or its session destroyed, before it was complete.
    cancelled = 5,

    /// Any other failure: server down, time-out, busy, refused, protocol errors.
    ///
    /// By design: 100, far from the others, because it is the catch-all; stored values stay valid when
    /// outcomes of their own are added.
    connectError = 100,
};

/// The text of a result for people, in English, as UTF-8.
///
/// A number that is no `Result` reports an assertion failure and gives "Unknown LDAP error: " with the
/// number. Thread-safe; throws nothing but `std::bad_alloc`.
TAVO_LDAP_EXPORT std::string toString(Result result);

/// The `Result` that stands for an LDAP result code (`LDAP_*`, positive from the server, negative from the
/// client library). Every code without a value of its own gives `Result::connectError`; none gives
/// `Result::moreResults`. Thread-safe, never throws.
TAVO_LDAP_EXPORT Result translateErrorCode(int ldapCode);

} // namespace tavo::ldap
