#include <ldap/private/finished_threads.h>

#include <mutex>
#include <utility>

namespace tavo::ldap::finished_threads {

namespace {

struct LastTask
{
    std::mutex mutex;
    std::future<void> task;
};

/// Never destroyed: a search may still end while the process exits.
LastTask& lastTask()
{
    static LastTask& instance = *new LastTask;
    return instance;
}

std::future<void> exchange(std::future<void> task)
{
    LastTask& last = lastTask();
    const std::lock_guard lock(last.mutex);
    return std::exchange(last.task, std::move(task));
}

/// Leaves no thread behind that has ended without being joined when the process exits.
struct JoinAtExit
{
    JoinAtExit() = default;
    JoinAtExit(const JoinAtExit&) = delete;
    JoinAtExit& operator=(const JoinAtExit&) = delete;
    ~JoinAtExit() { join(); }
};

const JoinAtExit joinAtExit;

} // namespace

void handOver(std::future<void> task)
{
    // Destroying the former one waits for its thread, outside the lock.
    const std::future<void> former = exchange(std::move(task));
}

void join() { const std::future<void> last = exchange({}); }

} // namespace tavo::ldap::finished_threads
