// stress [SECONDS [SEED]]: many threads use the library at random, over connections that stall and break,
// while every promise about searches and resources is checked, then and at the end.
#include "resources.h"
#include "support/deadline.h"
#include "support/sanitized.h"
#include "support/sanitizer_defaults.h"
#include "support/slapd.h"
#include "support/threads_end_here.h"
#include "worker.h"
#include <tavo_utils/assert.h>
#include <tavo_utils/log.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <random>
#include <string>

namespace tavo::stress {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kThreads = 16;

/// At the end of a round everything is checked.
constexpr std::chrono::seconds kRound{60};

/// By how much the heap in use and the resident memory may grow after the first round.
constexpr std::size_t kHeapTolerance = 1U << 20U;
constexpr std::size_t kResidentTolerance = 48U << 20U;

struct Options
{
    std::chrono::seconds time{60};
    std::uint64_t seed = std::random_device()();
};

Options optionsOf(int argc, char** argv)
{
    Options options;
    if (argc > 1) {
        options.time = std::chrono::seconds(std::stol(argv[1]));
    }
    if (argc > 2) {
        options.seed = std::stoull(argv[2]);
    }
    return options;
}

/// For a state from which no orderly end is possible.
[[noreturn]] void giveUp(Ledger& ledger, const std::string& what)
{
    ledger.violation(what + "; the threads are at:");
    test::printAllStacks();
    ledger.printTable();
    std::fflush(nullptr);
    std::_Exit(1);
}

class Run
{
public:
    Run(Options options, const test::Slapd& slapd)
        : m_options(options)
        , m_ledger(options.seed)
        , m_dice(options.seed)
        , m_world{m_ledger, {slapd.rootDn(), slapd.rootPassword()}, std::deque<Slot>(kThreads + kThreads / 4)}
    {
        for (std::size_t i = 0; i < kThreads; ++i) {
            m_relays.emplace_back(slapd.port(), m_ledger, m_stalls);
        }
    }

    /// Returns whether there was no violation.
    bool run()
    {
        setAssertionHandler([this](SourcePosition, const char* condition, const QString&) {
            m_ledger.violation(std::string("assertion: ") + condition);
        });
        m_start = Resources::now();
        m_began = Clock::now();
        const auto end = m_began + m_options.time;
        round(std::min<Clock::duration>(m_options.time / 5, kRound));
        m_warm = Resources::now();
        while (Clock::now() < end && m_ledger.violations() == 0) {
            round(std::min<Clock::duration>(end - Clock::now(), kRound));
        }
        checkMemory();
        require(m_ledger.searches() == m_ledger.finals() + m_ledger.of(Event::searchForgotten) +
                                           m_ledger.of(Event::startRefused),
            "not every search had its final call or was forgotten or refused");
        setAssertionHandler(nullptr);
        printSummary();
        return m_ledger.violations() == 0;
    }

private:
    void round(Clock::duration time)
    {
        // Logging everything in every second round changes the timing.
        log::setMaxLevel(m_rounds++ % 2 == 0 ? log::Level::verbose : log::Level::silent);
        const auto sink = log::setSink([](log::Level, const QString&, const QString&) {});
        {
            const test::ThreadsEndHere threads;
            work(Clock::now() + time);
            settle();
        }
        log::setSink(sink);
        checkNothingIsLeft();
        std::printf("%5lld s: %" PRIu64 " operations, %" PRIu64 " searches, %" PRIu64 " final calls, %" PRIu64
                    " faults; %s\n",
            static_cast<long long>(elapsed().count()), m_ledger.operations(), m_ledger.searches(),
            m_ledger.finals(), m_ledger.faults(), Resources::now().toString().c_str());
        std::fflush(stdout);
    }

    void work(Clock::time_point end)
    {
        std::vector<std::future<void>> threads;
        for (std::size_t i = 0; i < kThreads; ++i) {
            threads.push_back(std::async(std::launch::async, [this, i, end, dice = m_dice.split()] {
                Worker(m_world, m_relays[i], i, dice).runUntil(end);
            }));
        }
        for (std::size_t i = 0; i < kThreads; ++i) {
            if (threads[i].wait_until(end + kPatience) != std::future_status::ready) {
                giveUp(m_ledger, "thread " + std::to_string(i) + " hangs");
            }
            threads[i].get();
        }
    }

    /// Waits for every search to end by itself, then destroys the owners and with them the connections.
    void settle()
    {
        for (Slot& slot : m_world.slots) {
            const std::shared_ptr<SearchOwner> owner = slot.owner();
            if (owner && !owner->hasEnded() && !owner->waitForSettled(0, kPatience)) {
                giveUp(m_ledger, "searches never end");
            }
        }
        auto ended = std::async(std::launch::async, [this] { endOwners(); });
        if (ended.wait_for(kPatience) != std::future_status::ready) {
            giveUp(m_ledger, "the end of a manager or session hangs");
        }
        ended.get();
        m_stalls.openAll();
    }

    void endOwners()
    {
        for (Slot& slot : m_world.slots) {
            const std::shared_ptr<SearchOwner> owner = slot.owner();
            endOwner(owner.get());
            slot.put(nullptr);
        }
    }

    /// A handler may still be using the owner, or be about to end it as well.
    static void endOwner(SearchOwner* owner)
    {
        while (owner != nullptr && !owner->hasEnded()) {
            const Claim claim(owner->claim());
            if (claim && !owner->hasEnded()) {
                owner->end();
            }
            std::this_thread::yield();
        }
    }

    void checkNothingIsLeft()
    {
        const Resources now = Resources::now();
        require(now.threads == m_start.threads, "threads are left");
        require(now.handles == m_start.handles, "connection handles are left");
        require(Search::liveHandlers() == 0, "handlers are left");
        for (const FaultyRelay& relay : m_relays) {
            relay.waitUntilIdle();
        }
        require(Resources::now().descriptors == m_start.descriptors, "descriptors are left");
    }

    void checkMemory()
    {
        if (test::sanitized) {
            return;
        }
        const Resources now = Resources::now();
        const std::size_t kept = now.keptBytes - m_warm.keptBytes;
        require(now.heapBytes < m_warm.heapBytes + kept + kHeapTolerance, "the heap has grown");
        require(now.residentBytes < m_warm.residentBytes + kept + kResidentTolerance,
            "the resident memory has grown");
    }

    void require(bool holds, const char* what)
    {
        if (!holds) {
            m_ledger.violation(std::string(what) + ": " + Resources::now().toString() + "; at the start " +
                               m_start.toString());
        }
    }

    void printSummary() const
    {
        m_ledger.printTable();
        std::printf(
            "connections %zu\nat the start:       %s\nafter the warm-up:  %s\nat the end:         %s\n",
            connections(), m_start.toString().c_str(), m_warm.toString().c_str(),
            Resources::now().toString().c_str());
        std::printf("%lld s, %zu threads, seed %" PRIu64 ": %" PRIu64 " violations\n",
            static_cast<long long>(elapsed().count()), kThreads, m_options.seed, m_ledger.violations());
    }

    std::size_t connections() const
    {
        std::size_t sum = 0;
        for (const FaultyRelay& relay : m_relays) {
            sum += relay.connections();
        }
        return sum;
    }

    std::chrono::seconds elapsed() const
    {
        return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_began);
    }

    const Options m_options;
    Ledger m_ledger;
    Dice m_dice;
    World m_world;
    StallTimer m_stalls;
    std::deque<FaultyRelay> m_relays;
    Resources m_start;
    Resources m_warm;
    Clock::time_point m_began;
    int m_rounds = 0;
};

} // namespace

} // namespace tavo::stress

int main(int argc, char** argv)
try {
    using namespace tavo;
    const stress::Options options = stress::optionsOf(argc, argv);
    std::printf("seed %" PRIu64 ", %lld s\n", options.seed, static_cast<long long>(options.time.count()));
    const test::Slapd slapd({.ldif = stress::Directory::ldif(),
        .databaseLines = {"limits anonymous size=" + std::to_string(stress::Directory::sizeLimit)}});
    stress::Run run(options, slapd);
    return run.run() ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
