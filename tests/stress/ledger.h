#pragma once

#include <ldap/result.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace tavo::stress {

/// What is counted; the names for the table are in ledger.cpp, in the same order.
enum class Event : std::size_t
{
    // What threads and handlers do.
    createManager,
    createSession,
    setOptions,
    destroyOwner,
    fetchUsers,
    fetchGroups,
    asyncSearch,
    contextSearch,
    search,
    simpleSearch,
    whoAmI,
    detectVendor,
    testConnection,
    testConnectionAsync,
    forget,
    stopLate,
    interrupt,
    // What handlers do in their calls.
    forgetInCall,
    stopInCall,
    startInCall,
    searchInCall,
    destroyInCall,
    interruptInCall,
    throwInCall,
    // The outcomes.
    operationFailed,
    startRefused,
    pageDelivered,
    searchForgotten,
    forgottenTooLate,
    endedByForeignException,
    // What the relays did.
    cut,
    reset,
    halfClose,
    stall,
    count
};

/// Counts events and reports violations. Thread-safe; counting doesn't synchronize threads, so that it hides
/// no race from ThreadSanitizer.
class Ledger
{
public:
    explicit Ledger(std::uint64_t seed)
        : m_seed(seed)
    {}

    void count(Event event) { m_events[static_cast<std::size_t>(event)].fetch_add(1, relaxed); }
    void countFinal(ldap::Result result);

    /// Prints a violation and the seed immediately. Only the first hundred are printed.
    void violation(const std::string& what);

    std::uint64_t of(Event event) const { return m_events[static_cast<std::size_t>(event)].load(relaxed); }
    std::uint64_t operations() const;
    std::uint64_t searches() const;
    std::uint64_t finals() const;
    std::uint64_t faults() const;
    std::uint64_t violations() const { return m_violations.load(relaxed); }

    void printTable() const;

private:
    static constexpr auto relaxed = std::memory_order_relaxed;
    using Counter = std::atomic<std::uint64_t>;

    std::uint64_t sum(Event first, Event last) const;

    const std::uint64_t m_seed;
    std::array<Counter, static_cast<std::size_t>(Event::count)> m_events{};
    std::array<Counter, 7> m_finals{};
    Counter m_violations{0};
};

} // namespace tavo::stress
