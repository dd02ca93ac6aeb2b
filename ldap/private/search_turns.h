#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>

namespace tavo::ldap {

/// The order in which the paged searches of one connection run.
///
/// OpenLDAP's server keeps the state of one paged search for each connection: the first page of a second one
/// makes the next page of the first fail. So the searches take turns in the order of their start, each for
/// its whole length. Active Directory has no such limit; there nobody waits.
class SearchTurns
{
public:
    /// Lets all searches run at the same time from now on.
    void allowInterleaving();

private:
    friend class SearchTurn;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::set<std::uint64_t> m_queue;
    std::uint64_t m_lastTicket = 0;
    int m_pagesInFlight = 0;
    bool m_mayInterleave = false;
};

/// One search's place in that order, from its start until it is given up. Thread-safe.
class SearchTurn
{
public:
    /// Takes the place behind all others.
    explicit SearchTurn(std::shared_ptr<SearchTurns> turns);
    ~SearchTurn();
    SearchTurn(const SearchTurn&) = delete;
    SearchTurn& operator=(const SearchTurn&) = delete;

    /// Waits until the search may ask for its next page. False when it had better end: its turn was given up,
    /// and it hasn't begun or would disturb a search that has the turn now.
    bool beginPage();

    /// The page has come, or will not come.
    void endPage();

    /// Lets the next search run as soon as no page is on its way, and ends this one's waiting at once.
    void giveUp();

private:
    std::shared_ptr<SearchTurns> m_turns;
    std::uint64_t m_ticket;
    bool m_hasBegun = false;
};

} // namespace tavo::ldap
