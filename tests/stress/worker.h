#pragma once

#include "dice.h"
#include "faulty_relay.h"
#include "search_owner.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>

namespace tavo::stress {

/// Holds one search owner at a time, which comes and goes. Thread-safe.
class Slot
{
public:
    std::shared_ptr<SearchOwner> owner() const;
    void put(std::shared_ptr<SearchOwner> owner);

    /// Claimed by the thread that is about to put a new owner here.
    std::atomic<bool>& renewal() { return m_isBeingRenewed; }

private:
    mutable std::mutex m_mutex;
    std::shared_ptr<SearchOwner> m_owner;
    std::atomic<bool> m_isBeingRenewed{false};
};

/// What all threads share.
struct World
{
    Ledger& ledger;
    Directory directory;
    std::deque<Slot> slots;
};

/// The random work of one thread: mostly on its own slot, sometimes on those of the others.
class Worker
{
public:
    Worker(World& world, FaultyRelay& relay, std::size_t ownSlot, Dice dice);

    void runUntil(std::chrono::steady_clock::time_point end);

private:
    void step();
    void forget(SearchOwner& owner);
    void use(SearchOwner& owner);
    void renew(Slot& slot);
    void testConnection();
    Slot& anySlot();

    World& m_world;
    FaultyRelay& m_relay;
    std::size_t m_ownSlot;
    Dice m_dice;
};

} // namespace tavo::stress
