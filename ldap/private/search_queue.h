#pragma once

#include <ldap/private/wire/interruption.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace tavo::ldap {

class SearchTicket;

/// The paged searches of one connection, in the order in which they run. Thread-safe.
///
/// OpenLDAP's server keeps the state of one paged search for each connection: the first page of a second one
/// makes the next page of the first fail. So the searches take turns in the order of their start, each for
/// its whole length. Active Directory has no such limit, so no search waits there.
class SearchQueue final : public Interruptible
{
public:
    /// Lets all searches run at the same time from now on.
    void allowInterleaving();

    /// No search asks for a page from now on; none waits for its turn.
    void interrupt() noexcept override;

    /// Whether this thread delivers a page of one of the searches, so that those behind it wait for the
    /// caller's handler.
    bool isHeldUpByThisThread();

private:
    friend class SearchTicket;

    /// Wakes the search whose turn it is, and no other: hundreds may wait.
    void wakeNext();

    std::mutex m_mutex;
    /// By the numbers of their places; the ticket is there as long as its place.
    std::map<std::uint64_t, SearchTicket*> m_places;
    std::uint64_t m_lastNumber = 0;
    int m_pagesInFlight = 0;
    bool m_mayInterleave = false;
    bool m_isInterrupted = false;
};

/// One search's place in the queue, from its start until it gives the place up. Thread-safe.
class SearchTicket
{
public:
    /// Takes the place behind all others.
    explicit SearchTicket(std::shared_ptr<SearchQueue> queue);
    ~SearchTicket();
    SearchTicket(const SearchTicket&) = delete;
    SearchTicket& operator=(const SearchTicket&) = delete;

    /// While it lives, the calling thread delivers a page of the ticket's search.
    class Delivery
    {
    public:
        /// \param ticket may be null
        explicit Delivery(const SearchTicket* ticket);
        ~Delivery();
        Delivery(const Delivery&) = delete;
        Delivery& operator=(const Delivery&) = delete;

    private:
        const SearchTicket* m_former;
    };

    /// Waits until the search may ask for its next page. False when the search must end: its place was given
    /// up, and it hasn't begun or would disturb the search whose turn it is now.
    bool beginPage();

    /// The page has come, or will not come.
    void endPage();

    /// Whether the place was given up.
    bool isGivenUp() const;

    /// Lets the next search run as soon as no page is in flight, and ends this one's waiting at once.
    void giveUp();

private:
    friend class SearchQueue;

    std::shared_ptr<SearchQueue> m_queue;
    std::condition_variable m_mayRun;
    std::uint64_t m_number;
    bool m_hasBegun = false;
};

} // namespace tavo::ldap
