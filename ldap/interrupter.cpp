#include "ldap/interrupter.h"

#include <ldap/private/wire/interruption.h>

namespace tavo::ldap {

Interrupter::Interrupter()
    : m_interruption(std::make_shared<Interruption>())
{}

void Interrupter::interrupt() const noexcept { m_interruption->interrupt(); }

bool Interrupter::isInterrupted() const noexcept { return m_interruption->isInterrupted(); }

} // namespace tavo::ldap
