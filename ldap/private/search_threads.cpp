#include "ldap/private/search_threads.h"

#include <pthread.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <new>
#include <utility>

namespace tavo::ldap::search_threads {

void EndingThreads::add(Node& thread)
{
    if (thread.number == 0) {
        thread.number = ++m_lastNumber;
        *linkTo(nullptr) = &thread;
    }
}

void EndingThreads::remove(Node& thread)
{
    if (thread.number != 0) {
        *linkTo(&thread) = thread.next;
        thread = {};
    }
}

bool EndingThreads::isDoneWith(std::uint64_t number, const Node* self) const
{
    const Node* first = m_first != nullptr && m_first == self ? m_first->next : m_first;
    return first == nullptr || first->number > number;
}

EndingThreads::Node** EndingThreads::linkTo(const Node* thread)
{
    Node** link = &m_first;
    while (*link != thread) {
        link = &(*link)->next;
    }
    return link;
}

namespace {

struct Threads
{
    std::mutex mutex;
    std::condition_variable changed;
    EndingThreads announced;
    /// Those that other threads are just joining; the nodes are on the stacks of these.
    EndingThreads joined;
    /// The one that nobody is joining yet.
    std::future<void> last;
};

/// Never destroyed: a search may still end while the process exits.
Threads& threads()
{
    static Threads& instance = *new Threads;
    return instance;
}

/// The calling thread's, if it is a search's.
thread_local EndingThreads::Node* own = nullptr;

/// Set at the end of a search's thread. The destructors of its thread-local objects still run, but others
/// join the thread from then on: it would wait for itself.
thread_local bool hasEnded = false;

/// \return whether it had announced its end
bool withdrawEnd()
{
    if (own == nullptr) {
        return false;
    }
    const std::lock_guard lock(threads().mutex);
    const bool wasAnnounced = own->number != 0;
    threads().announced.remove(*own);
    threads().changed.notify_all();
    return wasAnnounced;
}

/// Waits for the thread of a task without the lock.
void join(std::future<void> task, std::unique_lock<std::mutex>& lock)
{
    EndingThreads::Node thread;
    threads().joined.add(thread);
    lock.unlock();
    task = {};
    lock.lock();
    threads().joined.remove(thread);
    threads().changed.notify_all();
}

/// Whether those that are in the list now have left it, apart from the calling thread.
auto areDone(const EndingThreads& list)
{
    return [&list, number = list.lastNumber()] { return list.isDoneWith(number, own); };
}

/// Of the parent's threads a forked child has but the memory, and perhaps a lock that is held for ever. It
/// forgets them, and leaks what they own.
void forgetTheParents()
{
    new (&threads()) Threads;
    if (own != nullptr) {
        *own = {};
    }
}

[[maybe_unused]] const int isToldOfForks = pthread_atfork(nullptr, nullptr, &forgetTheParents);

/// Leaves no thread behind that has ended without being joined when the process exits.
struct JoinAtExit
{
    JoinAtExit() = default;
    JoinAtExit(const JoinAtExit&) = delete;
    JoinAtExit& operator=(const JoinAtExit&) = delete;
    ~JoinAtExit() { joinAnnounced(); }
};

const JoinAtExit joinAtExit;

} // namespace

SearchThread::SearchThread() { own = &m_node; }

SearchThread::~SearchThread()
{
    withdrawEnd();
    own = nullptr;
    hasEnded = true;
}

void announceEnd()
{
    if (own != nullptr) {
        const std::lock_guard lock(threads().mutex);
        threads().announced.add(*own);
    }
}

NotAwaited::NotAwaited()
    : m_hasAnnouncedItsEnd(withdrawEnd())
{}

NotAwaited::~NotAwaited()
{
    if (m_hasAnnouncedItsEnd) {
        announceEnd();
    }
}

void joinLater(std::future<void> task)
{
    std::unique_lock lock(threads().mutex);
    join(std::exchange(threads().last, std::move(task)), lock);
}

void joinAnnounced()
{
    if (hasEnded) {
        return;
    }
    std::unique_lock lock(threads().mutex);
    threads().changed.wait(lock, areDone(threads().announced));
    // Each of these is the last now, or somebody is joining it.
    const auto areJoinedByOthers = areDone(threads().joined);
    join(std::exchange(threads().last, {}), lock);
    threads().changed.wait(lock, areJoinedByOthers);
}

} // namespace tavo::ldap::search_threads
