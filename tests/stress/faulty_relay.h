#pragma once

#include "dice.h"
#include "ledger.h"
#include "support/gate.h"
#include "support/tcp_relay.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace tavo::stress {

/// Opens gates after a while, on a thread of its own: this is how a stall ends.
class StallTimer
{
public:
    StallTimer();
    ~StallTimer();
    StallTimer(const StallTimer&) = delete;
    StallTimer& operator=(const StallTimer&) = delete;

    void openAfter(const test::Gate& gate, std::chrono::milliseconds time);

    /// Opens all that are still to be opened.
    void openAll();

private:
    using Clock = std::chrono::steady_clock;

    void run();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::multimap<Clock::time_point, test::Gate> m_gates;
    bool m_isStopping = false;
    std::thread m_thread;
};

/// Relays the connections of one thread to the server, and makes them fail at random: they stall and break.
class FaultyRelay
{
public:
    FaultyRelay(std::uint16_t serverPort, Ledger& ledger, StallTimer& stalls);

    /// Decides by the dice which fault the connections accepted from now on meet with, if any.
    void prepareFault(Dice& dice);

    std::string url() const { return m_relay.url(); }
    std::size_t connections() const { return m_relay.connections(); }
    void waitUntilIdle() const { m_relay.waitUntilIdle(); }

private:
    test::TcpRelay m_relay;
    Ledger& m_ledger;
    StallTimer& m_stalls;
};

} // namespace tavo::stress
