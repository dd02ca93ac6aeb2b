#pragma once

#include <cstdint>
#include <future>

/// Search threads that have done their work, and who waits for them.
namespace tavo::ldap::finished_threads {

/// Threads that have announced their end, the earliest first; not thread-safe. It is made of what the threads
/// bring along, so that announcing can't fail.
class Queue
{
public:
    struct Place
    {
        /// 0 outside of the queue.
        std::uint64_t number = 0;
        Place* next = nullptr;
    };

    /// Does nothing when it is there already.
    void add(Place& place);
    /// Does nothing when it isn't there.
    void remove(const Place& place);

    /// That of the latest one; the numbers grow.
    std::uint64_t lastNumber() const { return m_lastNumber; }

    /// Whether nobody but perhaps `self` is left of those with this number or an earlier one.
    bool isDoneWith(std::uint64_t number, const Place* self) const;

private:
    Place** linkTo(const Place* place);

    Place* m_first = nullptr;
    std::uint64_t m_lastNumber = 0;
};

/// Lives on a search's thread, longer than anything else of the search.
class Ending
{
public:
    Ending();
    ~Ending();
    Ending(const Ending&) = delete;
    Ending& operator=(const Ending&) = delete;

private:
    Queue::Place m_place;
};

/// Says that the calling search thread has run the last of any caller's code and is about to end; `join`
/// waits for it from now on. Does nothing on another thread than a search's.
void announceEnd();

/// Takes over the future of a task that is ending on the calling thread and can't wait for itself.
///
/// The thread that was handed over before is waited for here, so at most one, the last, is left; it has
/// nothing more to do than to return.
void handOver(std::future<void> task);

/// Waits for the threads that have announced their end before this call, but for the calling one. Those that
/// do so meanwhile are not waited for, or a busy process would never be done.
void join();

} // namespace tavo::ldap::finished_threads
