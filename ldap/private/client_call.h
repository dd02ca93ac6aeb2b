#pragma once

#include <ldap/private/sigpipe_guard.h>

#include <cerrno>
#include <utility>

namespace tavo::ldap {

/// What a call of the client library returned, and `errno` right after it.
struct ClientCallResult
{
    int code;
    int systemError;
};

/// Makes one call of the client library on a caller's thread, safe from SIGPIPE.
///
/// `errno` is read before anything else can change it. A call that leaves it alone, as a failed TLS handshake
/// may, gives 0: what was there before is not its reason, and is still there when this returns.
template <class Call>
ClientCallResult callClient(Call&& call)
{
    const SigpipeGuard guard;
    const int formerError = std::exchange(errno, 0);
    const int code = std::forward<Call>(call)();
    const int systemError = errno;
    if (systemError == 0) {
        errno = formerError;
    }
    return {code, systemError};
}

} // namespace tavo::ldap
