// One whole fetch of users, over and over, with another allocation of the library failing each time.
#include "support/scripted_server.h"
#include "support/threads_end_here.h"

#include <ldap/manager.h>
#include <ldap/session.h>

#include <tavo_utils/log.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <variant>

#include <gtest/gtest.h>

namespace {

/// Counts down with each allocation of the library; the one that makes it 0 fails.
std::atomic<long> allocationsLeft{0};
std::atomic<long> allocationsMade{0};
/// The test's own work, and that of its server, doesn't count.
thread_local int exempt = 0;

void* allocate(std::size_t size)
{
    if (exempt == 0) {
        ++allocationsMade;
        if (--allocationsLeft == 0)
            return nullptr;
    }
    return std::malloc(size == 0 ? 1 : size);
}

struct Exempt
{
    Exempt() { ++exempt; }
    ~Exempt() { --exempt; }
    Exempt(const Exempt&) = delete;
    Exempt& operator=(const Exempt&) = delete;
};

} // namespace

// Not inlined, or the compiler sees a new expression end in free().
[[gnu::noinline]] void* operator new(std::size_t size)
{
    if (void* memory = allocate(size))
        return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace tavo::test {

namespace {

using ldap::Manager;
using ldap::Result;
using ldap::Settings;
using ldap::User;

/// Runs the library's code in the middle of the test's.
template <class Function>
auto inLibrary(Function function)
{
    struct Restore
    {
        int former = std::exchange(exempt, 0);
        ~Restore() { exempt = former; }
    } restore;
    return function();
}

class EveryAllocation : public ::testing::Test
{
protected:
    static constexpr std::size_t kUsers = 3;

    EveryAllocation()
    {
        server.otherwise([](const Request& request) -> Steps {
            // This thread is the server's, and nobody else's.
            exempt = 1;
            if (!request.is<SearchRequest>())
                return success();
            const auto page = pageRequested(request);
            if (!page)
                return {entry("").attr("vendorName", "nobody's"), done()};
            if (page->cookie.empty())
                return {user("a"), user("b"), done().page("more")};
            return {user("c"), done().page("")};
        });
        settings.uri = utils::Url(QString::fromStdString(server.url()));
        settings.adminDn = QStringLiteral("cn=admin");
        settings.adminPassword = QStringLiteral("secret");
        settings.searchPageSize = 2;
    }

    static Entry user(const std::string& name)
    {
        return entry("uid=" + name).attr("uid", name).attr("displayName", "Name");
    }

    struct Outcome
    {
        std::atomic<int> finalCalls = 0;
        std::atomic<std::size_t> users = 0;
        std::atomic<Result> result = Result::moreResults;
    };

    /// Whether the fetch could be started at all.
    bool run(Outcome& outcome)
    {
        try {
            const auto manager = inLibrary([&] { return ldap::createManagerOrThrow(settings); });
            const ThreadsEndHere threadOfTheSearch;
            inLibrary([&] {
                return manager->fetchUsersAsync(
                    [&outcome](Result result, std::vector<User> users) {
                        outcome.users += users.size();
                        if (result != Result::moreResults) {
                            outcome.result = result;
                            ++outcome.finalCalls;
                        }
                    },
                    {});
            });
            return true;
        } catch (const std::bad_alloc&) {
        } catch (const ldap::BaseError&) {
        }
        return false;
    }

    const Exempt ownWork;
    ScriptedServer server;
    Settings settings;
};

TEST_F(EveryAllocation, mayFailAndTheFetchEndsAtMostOnceAndNothingIsTakenForComplete)
{
    allocationsLeft = 0;
    Outcome warmUp;
    ASSERT_TRUE(run(warmUp));
    allocationsMade = 0;
    Outcome good;
    ASSERT_TRUE(run(good));
    ASSERT_EQ(good.users, kUsers);
    const long allocations = allocationsMade;
    ASSERT_GT(allocations, 20);
    RecordProperty("faults", static_cast<int>(allocations));

    int lostEnds = 0;
    for (long nth = 1; nth <= allocations; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        Outcome outcome;
        allocationsLeft = nth;
        const bool started = run(outcome);
        allocationsLeft = 0;
        lostEnds += started && outcome.finalCalls == 0 ? 1 : 0;
        EXPECT_LE(outcome.finalCalls, started ? 1 : 0);
        if (outcome.result == Result::ok) {
            EXPECT_EQ(outcome.users, kUsers);
        }
    }
    // The last page is turned into users when the search has ended and lets nobody be told any more.
    EXPECT_LE(lostEnds, 1);
}

/// How a wait for all pages came to its end.
enum class Wait
{
    whole,
    failed,
    threw,
    brokenOff
};

Wait waitForAllPages(ldap::Session& session)
{
    try {
        const auto found = inLibrary([&] {
            return session.search({QStringLiteral("dc=x"), {}, {"uid"}, ldap::SearchScope::subtree}, 2);
        });
        const auto* entries = std::get_if<std::vector<ldap::SearchEntry>>(&found);
        if (entries == nullptr)
            return Wait::failed;
        EXPECT_EQ(entries->size(), 3U);
        return Wait::whole;
    } catch (const std::future_error&) {
        return Wait::brokenOff;
    } catch (const std::bad_alloc&) {
    } catch (const ldap::BaseError&) {
    }
    return Wait::threw;
}

TEST_F(EveryAllocation, mayFailAndTheWaitForAllPagesStillEnds)
{
    const auto createSession = [this] { return std::make_unique<ldap::Session>(settings.uri, false, false); };
    allocationsLeft = 0;
    {
        const auto session = createSession();
        ASSERT_EQ(waitForAllPages(*session), Wait::whole);
        allocationsMade = 0;
        ASSERT_EQ(waitForAllPages(*session), Wait::whole);
    }
    const long allocations = allocationsMade;
    RecordProperty("faults", static_cast<int>(allocations));

    int brokenOff = 0;
    for (long nth = 1; nth <= allocations; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        const auto session = createSession();
        const ThreadsEndHere threadOfTheSearch;
        allocationsLeft = nth;
        brokenOff += waitForAllPages(*session) == Wait::brokenOff ? 1 : 0;
        allocationsLeft = 0;
        EXPECT_EQ(waitForAllPages(*session), Wait::whole);
    }
    EXPECT_GT(brokenOff, 0);
}

} // namespace

} // namespace tavo::test
