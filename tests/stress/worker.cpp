#include "worker.h"

#include <utility>

namespace tavo::stress {

namespace {

using namespace std::chrono_literals;

/// Searches of one source under way at a time, but for those that handlers start.
constexpr std::size_t kSearches = 6;

} // namespace

std::shared_ptr<Source> Slot::source() const
{
    const std::lock_guard lock(m_mutex);
    return m_source;
}

void Slot::put(std::shared_ptr<Source> source)
{
    const std::lock_guard lock(m_mutex);
    m_source.swap(source);
}

Worker::Worker(World& world, Road& road, std::size_t ownSlot, Dice dice)
    : m_world(world)
    , m_road(road)
    , m_ownSlot(ownSlot)
    , m_dice(std::move(dice))
{}

void Worker::runUntil(std::chrono::steady_clock::time_point end)
{
    while (std::chrono::steady_clock::now() < end && m_world.ledger.violations() == 0) {
        step();
    }
}

void Worker::step()
{
    if (m_dice.chance(3)) {
        testConnection();
        return;
    }
    Slot& slot = anySlot();
    const std::shared_ptr<Source> source = slot.source();
    if (!source || source->hasEnded()) {
        renew(slot);
    } else if (m_dice.chance(15)) {
        source->forgetOne(m_dice);
    } else {
        use(*source);
    }
}

void Worker::use(Source& source)
{
    const Claim claim(source.claim());
    if (!claim || source.hasEnded()) {
        std::this_thread::yield();
        return;
    }
    const int what = m_dice.below(100);
    if (what < (source.isBroken() ? 50 : 3)) {
        source.end();
    } else if (what < 20) {
        source.operate(m_dice);
    } else if (what < 60 && source.waitForSettled(kSearches - 1, 20ms)) {
        source.start(m_dice);
    } else if (what >= 60) {
        source.waitForSettled(static_cast<std::size_t>(m_dice.below(3)), 20ms);
    }
}

void Worker::renew(Slot& slot)
{
    const Claim claim(slot.renewal());
    const std::shared_ptr<Source> former = slot.source();
    if (!claim || (former && !former->hasEnded())) {
        return;
    }
    m_road.prepareAccident(m_dice);
    try {
        slot.put(std::make_shared<Source>(m_world.ledger, m_world.directory, m_road.url(), m_dice));
    } catch (const ldap::BaseError&) {
        m_world.ledger.count(Event::operationFailed);
    }
}

void Worker::testConnection()
{
    m_road.prepareAccident(m_dice);
    ldap::Settings settings;
    settings.uri = utils::Url(QString::fromStdString(m_road.url()));
    settings.responseTimeout = 1s;
    if (m_dice.chance(50)) {
        m_world.ledger.count(Event::testConnection);
        if (!ldap::testLdapConnection(settings)) {
            m_world.ledger.count(Event::operationFailed);
        }
        return;
    }
    m_world.ledger.count(Event::testConnectionAsync);
    std::atomic<int> failures{0};
    ldap::testLdapConnectionAsync(settings, [&] { ++failures; }).get();
    if (failures != 0) {
        m_world.ledger.count(Event::operationFailed);
    }
    if (failures > 1) {
        m_world.ledger.violation("a test of a connection has failed twice");
    }
}

Slot& Worker::anySlot()
{
    if (m_dice.chance(70)) {
        return m_world.slots[m_ownSlot];
    }
    return m_world.slots[static_cast<std::size_t>(m_dice.below(static_cast<int>(m_world.slots.size())))];
}

} // namespace tavo::stress
