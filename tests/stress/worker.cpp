#include "worker.h"

#include <utility>

namespace tavo::stress {

namespace {

using namespace std::chrono_literals;

/// The most searches of one owner at a time, not counting those that handlers start.
constexpr std::size_t kSearches = 6;

} // namespace

std::shared_ptr<SearchOwner> Slot::owner() const
{
    const std::lock_guard lock(m_mutex);
    return m_owner;
}

void Slot::put(std::shared_ptr<SearchOwner> owner)
{
    const std::lock_guard lock(m_mutex);
    m_owner.swap(owner);
}

Worker::Worker(World& world, FaultyRelay& relay, std::size_t ownSlot, Dice dice)
    : m_world(world)
    , m_relay(relay)
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
    const std::shared_ptr<SearchOwner> owner = slot.owner();
    if (!owner || owner->hasEnded()) {
        renew(slot);
    } else if (m_dice.chance(15)) {
        owner->forgetOne(m_dice);
    } else if (m_dice.chance(10)) {
        owner->stopLate(m_dice);
    } else if (m_dice.chance(1)) {
        m_world.ledger.count(Event::interrupt);
        owner->interrupt();
    } else {
        use(*owner);
    }
}

void Worker::use(SearchOwner& owner)
{
    const Claim claim(owner.claim());
    if (!claim || owner.hasEnded()) {
        std::this_thread::yield();
        return;
    }
    const int what = m_dice.below(100);
    if (what < (owner.isBroken() ? 50 : 3)) {
        owner.end();
    } else if (what < 20) {
        owner.operate(m_dice);
    } else if (what < 60 && owner.waitForSettled(kSearches - 1, 20ms)) {
        owner.start(m_dice);
    } else if (what >= 60) {
        owner.waitForSettled(static_cast<std::size_t>(m_dice.below(3)), 20ms);
    }
}

void Worker::renew(Slot& slot)
{
    const Claim claim(slot.renewal());
    const std::shared_ptr<SearchOwner> former = slot.owner();
    if (!claim || (former && !former->hasEnded())) {
        return;
    }
    m_relay.prepareFault(m_dice);
    try {
        slot.put(std::make_shared<SearchOwner>(m_world.ledger, m_world.directory, m_relay.url(), m_dice));
    } catch (const ldap::BaseError&) {
        m_world.ledger.count(Event::operationFailed);
    }
}

void Worker::testConnection()
{
    m_relay.prepareFault(m_dice);
    ldap::Settings settings;
    settings.uri = utils::Url(QString::fromStdString(m_relay.url()));
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
