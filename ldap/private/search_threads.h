#pragma once

#include <cstdint>
#include <future>

/// The threads of asynchronous searches at their end: a thread can't join itself, so others do.
namespace tavo::ldap::search_threads {

/// Threads at their end, the earliest first. Not thread-safe. The nodes belong to the threads that announce
/// their end or join another, so that neither can fail for want of memory.
class EndingThreads
{
public:
    struct Node
    {
        /// 0 outside of the list.
        std::uint64_t number = 0;
        Node* next = nullptr;
    };

    /// Does nothing when the node is in the list already.
    void add(Node& thread);
    /// Does nothing when the node isn't in the list.
    void remove(Node& thread);

    /// The number of the latest that was added; the numbers grow.
    std::uint64_t lastNumber() const { return m_lastNumber; }

    /// Whether no thread with this number or an earlier one is left, other than `self`.
    bool isDoneWith(std::uint64_t number, const Node* self) const;

private:
    Node** linkTo(const Node* thread);

    Node* m_first = nullptr;
    std::uint64_t m_lastNumber = 0;
};

/// Registers the calling thread as a search's. Lives on its stack, longer than anything else of the search.
class SearchThread
{
public:
    SearchThread();
    ~SearchThread();
    SearchThread(const SearchThread&) = delete;
    SearchThread& operator=(const SearchThread&) = delete;

private:
    EndingThreads::Node m_node;
};

/// Says that the calling search thread has run the last of any caller's code, the log's sink included, and is
/// about to end; `joinAnnounced` waits for it from now on. Does nothing on a thread that isn't a search's.
void announceEnd();

/// While it lives, nobody waits for the calling thread, though it has announced its end: it runs code of the
/// caller's after all, such as the log's sink, which may need what a waiting thread holds.
class NotAwaited
{
public:
    NotAwaited();
    ~NotAwaited();
    NotAwaited(const NotAwaited&) = delete;
    NotAwaited& operator=(const NotAwaited&) = delete;

private:
    const bool m_hasAnnouncedItsEnd;
};

/// Takes over the future of a task that is ending on the calling thread and can't wait for itself.
///
/// Waits for the thread that was handed over before, so at most one, the last, is left; it has nothing more
/// to do than to return, and nothing to log.
void joinLater(std::future<void> task);

/// Waits for the threads that have announced their end before this call, except the calling one, and for those
/// that others are just joining. Threads that do so meanwhile are not waited for, or a busy process would
/// never be done. Returns at once in the destructor of a search thread's thread-local object.
void joinAnnounced();

} // namespace tavo::ldap::search_threads
