#include "faulty_relay.h"

#include <utility>

namespace tavo::stress {

namespace {

using Direction = test::TcpRelay::Direction;
using Ending = test::TcpRelay::Ending;

Event eventOf(Ending ending)
{
    switch (ending) {
    case Ending::close:
        return Event::cut;
    case Ending::reset:
        return Event::reset;
    case Ending::halfClose:
        return Event::halfClose;
    }
    return Event::cut;
}

/// Mostly during a search, often while connecting, now and then so late that it is never reached.
test::TcpRelay::Point anyPoint(Dice& dice, Direction direction)
{
    if (dice.chance(30)) {
        return test::TcpRelay::messages(static_cast<std::size_t>(dice.below(8)));
    }
    const int farthest = direction == Direction::toClient ? 40'000 : 4'000;
    return test::TcpRelay::bytes(static_cast<std::size_t>(dice.below(1 + dice.below(farthest))));
}

/// Within a search's timeout, or beyond it.
std::chrono::milliseconds anyStall(Dice& dice)
{
    return std::chrono::milliseconds(dice.chance(10) ? 1'200 : dice.below(250));
}

} // namespace

StallTimer::StallTimer()
    : m_thread([this] { run(); })
{}

StallTimer::~StallTimer()
{
    {
        const std::lock_guard lock(m_mutex);
        m_isStopping = true;
    }
    m_changed.notify_one();
    m_thread.join();
    openAll();
}

void StallTimer::openAfter(const test::Gate& gate, std::chrono::milliseconds time)
{
    {
        const std::lock_guard lock(m_mutex);
        m_gates.emplace(Clock::now() + time, gate);
    }
    m_changed.notify_one();
}

void StallTimer::openAll()
{
    std::multimap<Clock::time_point, test::Gate> gates;
    {
        const std::lock_guard lock(m_mutex);
        gates = std::exchange(m_gates, {});
    }
    for (const auto& [time, gate] : gates) {
        gate.open();
    }
}

void StallTimer::run()
{
    std::unique_lock lock(m_mutex);
    while (!m_isStopping) {
        if (m_gates.empty()) {
            m_changed.wait(lock);
            continue;
        }
        const auto first = m_gates.begin();
        if (first->first > Clock::now()) {
            const auto time = first->first;
            m_changed.wait_until(lock, time);
            continue;
        }
        const test::Gate gate = first->second;
        m_gates.erase(first);
        lock.unlock();
        gate.open();
        lock.lock();
    }
}

FaultyRelay::FaultyRelay(std::uint16_t serverPort, Ledger& ledger, StallTimer& stalls)
    : m_relay(serverPort)
    , m_ledger(ledger)
    , m_stalls(stalls)
{}

void FaultyRelay::prepareFault(Dice& dice)
{
    m_relay.passEverything();
    if (dice.chance(40)) {
        return;
    }
    const auto direction = dice.oneOf({Direction::toClient, Direction::toClient, Direction::toServer});
    const auto point = anyPoint(dice, direction);
    const auto ending = dice.oneOf({Ending::close, Ending::reset, Ending::halfClose});
    if (dice.chance(30)) {
        const test::Gate end;
        const test::Gate stalled = m_relay.hold(direction, point, end);
        stalled.whenOpen([this, end, time = anyStall(dice)] {
            m_ledger.count(Event::stall);
            m_stalls.openAfter(end, time);
        });
    }
    const test::Gate reached = m_relay.cut(direction, point, ending);
    reached.whenOpen([this, ending] { m_ledger.count(eventOf(ending)); });
}

} // namespace tavo::stress
