#include "ldap/private/search_queue.h"

#include <utility>

namespace tavo::ldap {

namespace {

/// That of the search whose page this thread delivers.
thread_local const SearchTicket* delivering = nullptr;

} // namespace

void SearchQueue::allowInterleaving()
{
    const std::lock_guard lock(m_mutex);
    m_mayInterleave = true;
    for (const auto& [number, ticket] : m_places) {
        ticket->m_mayRun.notify_all();
    }
}

void SearchQueue::interrupt() noexcept
{
    const std::lock_guard lock(m_mutex);
    m_isInterrupted = true;
    for (const auto& [number, ticket] : m_places) {
        ticket->m_mayRun.notify_all();
    }
}

bool SearchQueue::isHeldUpByThisThread()
{
    if (delivering == nullptr || delivering->m_queue.get() != this) {
        return false;
    }
    const std::lock_guard lock(m_mutex);
    return !m_mayInterleave && m_places.count(delivering->m_number) != 0;
}

void SearchQueue::wakeNext()
{
    if (!m_places.empty() && m_pagesInFlight == 0) {
        m_places.begin()->second->m_mayRun.notify_all();
    }
}

SearchTicket::Delivery::Delivery(const SearchTicket* ticket)
    : m_former(std::exchange(delivering, ticket))
{}

SearchTicket::Delivery::~Delivery() { delivering = m_former; }

SearchTicket::SearchTicket(std::shared_ptr<SearchQueue> queue)
    : m_queue(std::move(queue))
{
    const std::lock_guard lock(m_queue->m_mutex);
    m_number = ++m_queue->m_lastNumber;
    m_queue->m_places.emplace(m_number, this);
}

SearchTicket::~SearchTicket() { giveUp(); }

bool SearchTicket::beginPage()
{
    SearchQueue& queue = *m_queue;
    std::unique_lock lock(queue.m_mutex);
    const auto isGivenUp = [&] { return queue.m_places.count(m_number) == 0; };
    m_mayRun.wait(lock, [&] {
        return queue.m_isInterrupted || queue.m_mayInterleave || isGivenUp() ||
               (queue.m_places.begin()->first == m_number && queue.m_pagesInFlight == 0);
    });
    if (queue.m_isInterrupted) {
        return false;
    }
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
    m_queue->wakeNext();
}

bool SearchTicket::isGivenUp() const
{
    const std::lock_guard lock(m_queue->m_mutex);
    return m_queue->m_places.count(m_number) == 0;
}

void SearchTicket::giveUp()
{
    const std::lock_guard lock(m_queue->m_mutex);
    if (m_queue->m_places.erase(m_number) != 0) {
        m_mayRun.notify_all();
        m_queue->wakeNext();
    }
}

} // namespace tavo::ldap
