#include "ldap/private/search_queue.h"

#include <utility>

namespace tavo::ldap {

void SearchQueue::allowInterleaving()
{
    const std::lock_guard lock(m_mutex);
    m_mayInterleave = true;
    m_changed.notify_all();
}

SearchTicket::SearchTicket(std::shared_ptr<SearchQueue> queue)
    : m_queue(std::move(queue))
{
    const std::lock_guard lock(m_queue->m_mutex);
    m_number = ++m_queue->m_lastNumber;
    m_queue->m_places.insert(m_number);
}

SearchTicket::~SearchTicket() { giveUp(); }

bool SearchTicket::beginPage()
{
    SearchQueue& queue = *m_queue;
    std::unique_lock lock(queue.m_mutex);
    const auto isGivenUp = [&] { return queue.m_places.count(m_number) == 0; };
    queue.m_changed.wait(lock, [&] {
        return queue.m_mayInterleave || isGivenUp() ||
               (*queue.m_places.begin() == m_number && queue.m_pagesInFlight == 0);
    });
    if (!queue.m_mayInterleave && isGivenUp()) {
        const bool isAlone = queue.m_places.empty() && queue.m_pagesInFlight == 0;
        if (!m_hasBegun || !isAlone) {
            return false;
        }
    }
    m_hasBegun = true;
    ++queue.m_pagesInFlight;
    return true;
}

void SearchTicket::endPage()
{
    const std::lock_guard lock(m_queue->m_mutex);
    --m_queue->m_pagesInFlight;
    m_queue->m_changed.notify_all();
}

void SearchTicket::giveUp()
{
    const std::lock_guard lock(m_queue->m_mutex);
    if (m_queue->m_places.erase(m_number) != 0) {
        m_queue->m_changed.notify_all();
    }
}

} // namespace tavo::ldap
