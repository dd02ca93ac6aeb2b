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

    /// Waits until the search may run; false when its turn was given up, before or meanwhile.
    bool wait();

    /// Lets the next search run, and ends this one's waiting at once.
    void giveUp();

private:
    std::shared_ptr<SearchTurns> m_turns;
    std::uint64_t m_ticket;
};

} // namespace tavo::ldap
