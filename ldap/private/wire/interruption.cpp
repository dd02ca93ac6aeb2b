#include "ldap/private/wire/interruption.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace tavo::ldap {

Interruption::Interruption()
    : m_descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (m_descriptor < 0) {
        throw std::system_error(
            errno, std::system_category(), "tavo::ldap::Interrupter, no event descriptor");
    }
}

Interruption::~Interruption() { close(m_descriptor); }

void Interruption::add(std::weak_ptr<Interruptible> target)
{
    const std::lock_guard lock(m_mutex);
    std::erase_if(m_targets, [](const auto& former) { return former.expired(); });
    m_targets.push_back(std::move(target));
    if (m_isInterrupted) {
        if (const auto added = m_targets.back().lock()) {
            added->interrupt();
        }
    }
}

void Interruption::interrupt() noexcept
{
    const std::lock_guard lock(m_mutex);
    m_isInterrupted = true;
    eventfd_write(m_descriptor, 1);
    for (const auto& target : m_targets) {
        if (const auto interrupted = target.lock()) {
            interrupted->interrupt();
        }
    }
}

} // namespace tavo::ldap
