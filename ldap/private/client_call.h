#pragma once

#include <tavo_utils/system_error.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <utility>

namespace tavo::ldap {

/// Keeps a SIGPIPE that a call of the client library causes away from the host process.
///
/// The client library writes to its sockets with write(2), so a connection that the server has closed raises
/// the signal, whose default is to kill the process. It is blocked on this thread for the guard's life, and
/// one that became pending meanwhile is consumed; one that was pending before is the host's and stays.
class SigpipeGuard
{
public:
    SigpipeGuard() noexcept
    {
        const utils::SystemErrorKeeper keepSystemError;
        sigset_t pending;
        sigpending(&pending);
        m_wasPending = sigismember(&pending, SIGPIPE) == 1;
        if (m_wasPending) {
            return;
        }
        const sigset_t sigpipe = sigpipeSet();
        pthread_sigmask(SIG_BLOCK, &sigpipe, &m_formerMask);
    }

    ~SigpipeGuard()
    {
        if (m_wasPending) {
            return;
        }
        const utils::SystemErrorKeeper keepSystemError;
        const sigset_t sigpipe = sigpipeSet();
        const timespec noWait{0, 0};
        while (sigtimedwait(&sigpipe, nullptr, &noWait) == -1 && errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &m_formerMask, nullptr);
    }

    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

    /// Blocks SIGPIPE for the rest of the calling thread's life; for threads of our own.
    static void blockForThisThread() noexcept
    {
        const sigset_t sigpipe = sigpipeSet();
        pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
    }

private:
    static sigset_t sigpipeSet() noexcept
    {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGPIPE);
        return set;
    }

    sigset_t m_formerMask{};
    bool m_wasPending = false;
};

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
