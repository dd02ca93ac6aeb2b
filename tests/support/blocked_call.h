#pragma once

#include <sys/types.h>

#include <functional>
#include <future>

namespace tavo::test {

/// Runs a call that should block, on a thread of its own. The destructor waits for the call to return.
class BlockedCall
{
public:
    explicit BlockedCall(std::function<void()> call);

    /// Polls until the call's thread sleeps, and returns true, or until the call has returned, and returns
    /// false. No event tells that a thread sleeps.
    bool isWaiting() const;

    /// Waits for the call to return, and rethrows its exception.
    void get() { m_returned.get(); }

private:
    std::promise<pid_t> m_started;
    std::future<void> m_returned;
    pid_t m_thread;
};

} // namespace tavo::test
