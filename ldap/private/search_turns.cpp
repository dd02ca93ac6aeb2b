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

bool SearchTurn::beginPage()
{
    SearchTurns& turns = *m_turns;
    std::unique_lock lock(turns.m_mutex);
    const auto isGivenUp = [&] { return turns.m_queue.count(m_ticket) == 0; };
    turns.m_changed.wait(lock, [&] {
        return turns.m_mayInterleave || isGivenUp() ||
               (*turns.m_queue.begin() == m_ticket && turns.m_pagesInFlight == 0);
    });
    if (!turns.m_mayInterleave && isGivenUp()) {
        const bool isAlone = turns.m_queue.empty() && turns.m_pagesInFlight == 0;
        if (!m_hasBegun || !isAlone) {
            return false;
        }
    }
    m_hasBegun = true;
    ++turns.m_pagesInFlight;
    return true;
}

void SearchTurn::endPage()
{
    const std::lock_guard lock(m_turns->m_mutex);
    --m_turns->m_pagesInFlight;
    m_turns->m_changed.notify_all();
}

void SearchTurn::giveUp()
{
    const std::lock_guard lock(m_turns->m_mutex);
    if (m_turns->m_queue.erase(m_ticket) != 0) {
        m_turns->m_changed.notify_all();
    }
}

} // namespace tavo::ldap
