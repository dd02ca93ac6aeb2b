#include "ledger.h"

#include <cinttypes>
#include <cstdio>

namespace tavo::stress {

namespace {

constexpr std::array<const char*, static_cast<std::size_t>(Event::count)> kEventNames{
    "create a manager",
    "create a session",
    "with options",
    "destroy a manager or session",
    "fetch users",
    "fetch groups",
    "asyncSearch",
    "asyncSearch of a context",
    "search",
    "simpleSearch",
    "whoAmI",
    "detectLdapVendor",
    "testLdapConnection",
    "testLdapConnectionAsync",
    "forget from any thread",
    "forget one that has ended",
    "interrupt",
    "a handler forgets its search",
    "a handler stops its search",
    "a handler starts a search",
    "a handler searches and waits",
    "a handler destroys its manager",
    "a handler interrupts its connection",
    "a handler throws",
    "operations that failed",
    "starts that were refused",
    "pages before the last",
    "searches forgotten",
    "forgotten during the final call",
    "ended by a foreign exception",
    "cuts",
    "resets",
    "half-closes",
    "stalls before one of them",
};

/// The final results, in the order of their counters; one more counter is for any other value.
constexpr std::array<ldap::Result, 6> kFinals{ldap::Result::ok, ldap::Result::noSuchObject,
    ldap::Result::sizeLimitExceeded, ldap::Result::invalidCredentials, ldap::Result::cancelled,
    ldap::Result::connectError};

constexpr std::uint64_t kPrintedAtMost = 100;

void printLine(const std::string& name, std::uint64_t count)
{
    std::printf("  %-36s %12" PRIu64 "\n", name.c_str(), count);
}

} // namespace

void Ledger::countFinal(ldap::Result result)
{
    std::size_t index = 0;
    while (index < kFinals.size() && kFinals[index] != result) {
        ++index;
    }
    m_finals[index].fetch_add(1, relaxed);
}

void Ledger::violation(const std::string& what)
{
    if (m_violations.fetch_add(1, relaxed) < kPrintedAtMost) {
        std::printf("VIOLATION (seed %" PRIu64 "): %s\n", m_seed, what.c_str());
        std::fflush(stdout);
    }
}

std::uint64_t Ledger::sum(Event first, Event last) const
{
    std::uint64_t result = 0;
    for (auto i = static_cast<std::size_t>(first); i <= static_cast<std::size_t>(last); ++i) {
        result += m_events[i].load(relaxed);
    }
    return result;
}

std::uint64_t Ledger::operations() const { return sum(Event::createManager, Event::throwInCall); }

std::uint64_t Ledger::searches() const { return sum(Event::fetchUsers, Event::contextSearch); }

std::uint64_t Ledger::faults() const { return sum(Event::cut, Event::halfClose); }

std::uint64_t Ledger::finals() const
{
    std::uint64_t result = 0;
    for (const Counter& counter : m_finals) {
        result += counter.load(relaxed);
    }
    return result;
}

void Ledger::printTable() const
{
    std::printf("events\n");
    for (std::size_t i = 0; i < kEventNames.size(); ++i) {
        printLine(kEventNames[i], m_events[i].load(relaxed));
    }
    std::printf("final calls of asynchronous searches\n");
    for (std::size_t i = 0; i < kFinals.size(); ++i) {
        printLine(ldap::toString(kFinals[i]), m_finals[i].load(relaxed));
    }
}

} // namespace tavo::stress
