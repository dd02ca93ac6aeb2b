#include <ldap/private/finished_threads.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>

#include <unistd.h>

namespace tavo::ldap::finished_threads {

void Queue::add(Place& place)
{
    if (place.number == 0) {
        place.number = ++m_lastNumber;
        *linkTo(nullptr) = &place;
    }
}

void Queue::remove(const Place& place)
{
    if (place.number != 0) {
        *linkTo(&place) = place.next;
    }
}

bool Queue::isDoneWith(std::uint64_t number, const Place* self) const
{
    const Place* first = m_first != nullptr && m_first == self ? m_first->next : m_first;
    return first == nullptr || first->number > number;
}

Queue::Place** Queue::linkTo(const Place* place)
{
    Place** link = &m_first;
    while (*link != place) {
        link = &(*link)->next;
    }
    return link;
}

namespace {

struct Threads
{
    std::mutex mutex;
    std::condition_variable changed;
    Queue ending;
    std::future<void> last;
};

/// Never destroyed: a search may still end while the process exits.
Threads& threads()
{
    static Threads& instance = *new Threads;
    return instance;
}

/// The calling thread's, if it is a search's.
thread_local Queue::Place* own = nullptr;

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

Ending::Ending() { own = &m_place; }

Ending::~Ending()
{
    own = nullptr;
    const std::lock_guard lock(threads().mutex);
    threads().ending.remove(m_place);
    threads().changed.notify_all();
}

void announceEnd()
{
    if (own != nullptr) {
        const std::lock_guard lock(threads().mutex);
        threads().ending.add(*own);
    }
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
        threads().changed.wait(lock,
            [number = threads().ending.lastNumber()] { return threads().ending.isDoneWith(number, own); });
    }
    const std::future<void> last = exchangeLast({});
}

} // namespace tavo::ldap::finished_threads
