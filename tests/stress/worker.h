#pragma once

#include "dice.h"
#include "road.h"
#include "source.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>

namespace tavo::stress {

/// A place for a source, which comes and goes. Thread-safe.
class Slot
{
public:
    std::shared_ptr<Source> source() const;
    void put(std::shared_ptr<Source> source);

    /// Whoever is about to put a new one there claims this.
    std::atomic<bool>& renewal() { return m_isBeingRenewed; }

private:
    mutable std::mutex m_mutex;
    std::shared_ptr<Source> m_source;
    std::atomic<bool> m_isBeingRenewed{false};
};

/// What all threads share.
struct World
{
    Ledger& ledger;
    Directory directory;
    std::deque<Slot> slots;
};

/// What one thread does, at random: to its own slot mostly, and to those of all the others.
class Worker
{
public:
    Worker(World& world, Road& road, std::size_t ownSlot, Dice dice);

    void runUntil(std::chrono::steady_clock::time_point end);

private:
    void step();
    void forget(Source& source);
    void use(Source& source);
    void renew(Slot& slot);
    void testConnection();
    Slot& anySlot();

    World& m_world;
    Road& m_road;
    std::size_t m_ownSlot;
    Dice m_dice;
};

} // namespace tavo::stress
