#pragma once

#include <tavo_utils/system_error.h>

#include <cerrno>
#include <csignal>
#include <ctime>

namespace tavo::ldap {

/// Keeps a SIGPIPE that a call of the client library causes away from the host process.
///
/// The library's own layer raises none. But newer client libraries (2.6.10) free it when a TLS handshake fails,
/// and write the next one with write(2). On a connection that the server has closed that raises the signal,
/// whose default is to kill the process. It is blocked on this thread for the guard's life, and one that became
/// pending meanwhile is consumed; one that was pending before is the host's and stays.
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

} // namespace tavo::ldap
