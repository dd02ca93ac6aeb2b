#pragma once

#include <future>

/// Search threads that have done their work, and who waits for them.
namespace tavo::ldap::finished_threads {

/// Lives on a search's thread, longer than anything else of the search.
class Ending
{
public:
    Ending();
    ~Ending();
    Ending(const Ending&) = delete;
    Ending& operator=(const Ending&) = delete;
};

/// Says that the calling search thread has run the last of any caller's code and is about to end; `join`
/// waits for it from now on. Does nothing on another thread than a search's.
void announceEnd();

/// Takes over the future of a task that is ending on the calling thread and can't wait for itself.
///
/// The thread that was handed over before is waited for here, so at most one, the last, is left; it has
/// nothing more to do than to return.
void handOver(std::future<void> task);

/// Waits for the threads that have announced their end, but for the calling one.
void join();

} // namespace tavo::ldap::finished_threads
