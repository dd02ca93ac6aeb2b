#include <ldap/private/search_turns.h>

#include <utility>

namespace tavo::ldap {

void SearchTurns::allowInterleaving()
{
    const std::lock_guard lock(m_mutex);
    m_mayInterleave = true;
    m_changed.notify_all();
}

SearchTurn::SearchTurn(std::shared_ptr<SearchTurns> turns)
    : m_turns(std::move(turns))
{
    const std::lock_guard lock(m_turns->m_mutex);
    m_ticket = ++m_turns->m_lastTicket;
    m_turns->m_queue.insert(m_ticket);
}

SearchTurn::~SearchTurn() { giveUp(); }

bool SearchTurn::wait()
{
    SearchTurns& turns = *m_turns;
    std::unique_lock lock(turns.m_mutex);
    const auto isGivenUp = [&] { return turns.m_queue.count(m_ticket) == 0; };
    turns.m_changed.wait(
        lock, [&] { return isGivenUp() || turns.m_mayInterleave || *turns.m_queue.begin() == m_ticket; });
    return !isGivenUp();
}

void SearchTurn::giveUp()
{
    const std::lock_guard lock(m_turns->m_mutex);
    if (m_turns->m_queue.erase(m_ticket) != 0) {
        m_turns->m_changed.notify_all();
    }
}

} // namespace tavo::ldap
