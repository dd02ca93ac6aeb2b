#include <ldap/private/finished_threads.h>

#include <condition_variable>
#include <mutex>
#include <utility>

#include <unistd.h>

namespace tavo::ldap::finished_threads {

namespace {

struct Threads
{
    std::mutex mutex;
    std::condition_variable changed;
    int ending = 0;
    std::future<void> last;
};

/// Never destroyed: a search may still end while the process exits.
Threads& threads()
{
    static Threads& instance = *new Threads;
    return instance;
}

thread_local bool isSearchThread = false;
thread_local bool isEnding = false;

std::future<void> exchangeLast(std::future<void> task)
{
    const std::lock_guard lock(threads().mutex);
    return std::exchange(threads().last, std::move(task));
}

/// Leaves no thread behind that has ended without being joined when the process exits. In a forked child
/// there are no such threads, only the memory of them.
struct JoinAtExit
{
    JoinAtExit() = default;
    JoinAtExit(const JoinAtExit&) = delete;
    JoinAtExit& operator=(const JoinAtExit&) = delete;
    ~JoinAtExit()
    {
        if (getpid() == process) {
            join();
        }
    }

    const pid_t process = getpid();
};

const JoinAtExit joinAtExit;

} // namespace

Ending::Ending() { isSearchThread = true; }

Ending::~Ending()
{
    if (!isEnding) {
        return;
    }
    const std::lock_guard lock(threads().mutex);
    --threads().ending;
    threads().changed.notify_all();
}

void announceEnd()
{
    if (!isSearchThread || isEnding) {
        return;
    }
    const std::lock_guard lock(threads().mutex);
    ++threads().ending;
    isEnding = true;
}

void handOver(std::future<void> task)
{
    // Destroying the former one waits for its thread, outside the lock.
    const std::future<void> former = exchangeLast(std::move(task));
}

void join()
{
    {
        std::unique_lock lock(threads().mutex);
        threads().changed.wait(lock, [] { return threads().ending == (isEnding ? 1 : 0); });
    }
    const std::future<void> last = exchangeLast({});
}

} // namespace tavo::ldap::finished_threads
