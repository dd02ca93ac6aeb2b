#pragma once

#include <functional>
#include <future>

#include <sys/types.h>

namespace tavo::test {

/// A call on a thread of its own that should wait for something. Waits for it when it goes.
class BlockedCall
{
public:
    explicit BlockedCall(std::function<void()> call);

    /// Whether it waits: looks until its thread sleeps, which is true, or has returned. There is no event for
    /// the former.
    bool isWaiting() const;

    /// Waits for the end of the call, and throws what it has thrown.
    void get() { m_returned.get(); }

private:
    std::promise<pid_t> m_started;
    std::future<void> m_returned;
    pid_t m_thread;
};

} // namespace tavo::test
