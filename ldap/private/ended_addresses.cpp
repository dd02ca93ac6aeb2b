#include "ldap/private/ended_addresses.h"

#include <algorithm>

namespace tavo::ldap {

void EndedAddresses::makeRoomFor(std::size_t objects)
{
    const std::size_t needed = std::min(m_kept.size() + objects, kKept);
    if (m_kept.capacity() < needed) {
        m_kept.reserve(std::min(std::max(needed, 2 * m_kept.capacity()), kKept));
    }
}

void EndedAddresses::add(const std::shared_ptr<const void>& ended) noexcept
{
    if (m_kept.size() < kKept) {
        m_kept.emplace_back(ended);
        return;
    }
    m_kept[m_earliest] = ended;
    m_earliest = (m_earliest + 1) % kKept;
}

} // namespace tavo::ldap
