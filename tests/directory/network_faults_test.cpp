// A small conversation with a real server, broken off at every byte that it consists of.
#include "directory_test.h"

#include "support/sanitized.h"
#include "support/tcp_relay.h"

#include <gtest/gtest.h>
#include <ldap.h>

#include <sys/resource.h>
#include <unistd.h>

#include <future>
#include <optional>
#include <string>

namespace tavo::ldap {
namespace {

using test::Deliveries;
using test::qt;
using test::Slapd;
using test::TcpRelay;
using test::urlOf;

using Direction = TcpRelay::Direction;
using Ending = TcpRelay::Ending;

constexpr std::size_t kUsers = 3;
constexpr std::size_t kStride = test::sanitized ? 7 : 1;

/// How a conversation went: an error while connecting, or a fetch that ended.
struct Outcome
{
    std::optional<int> error;
    int finals = 0;
    Result result = Result::moreResults;
    std::size_t users = 0;
};

class NetworkFaultsTest : public ::testing::Test
{
protected:
    /// Connection, vendor, bind, three users on two pages, and the end.
    Outcome talk(
        const std::string& url, std::chrono::seconds responseTimeout = std::chrono::seconds(30)) const
    {
        Settings settings;
        settings.uri = urlOf(url);
        settings.adminDn = qt(m_slapd.rootDn());
        settings.adminPassword = qt(m_slapd.rootPassword());
        settings.searchPageSize = 2;
        settings.responseTimeout = responseTimeout;
        Outcome outcome;
        Deliveries<User> users;
        const test::ThreadsEndHere threads;
        try {
            const auto manager = createManagerOrThrow(settings);
            manager->fetchUsersAsync(users.handler(), {qt("ou=people,dc=example,dc=test"), {}});
            outcome.result = users.waitForEnd();
        } catch (const BaseError& error) {
            outcome.error = error.ldapCode;
        }
        outcome.finals = users.finals();
        outcome.users = users.records().size();
        return outcome;
    }

    /// What a conversation that nobody disturbs carries in that direction, in bytes.
    std::size_t length(Direction direction)
    {
        m_relay.passEverything();
        const std::size_t before = m_relay.forwarded(direction);
        const Outcome outcome = talk(m_relay.url());
        EXPECT_EQ(outcome.users, kUsers);
        m_relay.waitUntilIdle();
        return m_relay.forwarded(direction) - before;
    }

    /// Breaks a conversation off at each of its bytes; at fewer in a build that is slow.
    void breakOff(Direction direction, Ending ending)
    {
        const std::size_t bytes = length(direction);
        ASSERT_GT(bytes, 100U);
        RecordProperty("offsets", static_cast<int>(bytes / kStride + 1));
        for (std::size_t at = 0; at <= bytes; at += kStride) {
            SCOPED_TRACE("after " + std::to_string(at) + " of " + std::to_string(bytes) + " bytes");
            m_relay.passEverything();
            m_relay.cut(direction, TcpRelay::bytes(at), ending);
            const Outcome outcome = talk(m_relay.url());
            EXPECT_EQ(outcome.finals, outcome.error ? 0 : 1);
            // Part of the users is never taken for all of them.
            if (outcome.result == Result::ok) {
                EXPECT_EQ(outcome.users, kUsers);
            }
        }
    }

    Slapd m_slapd{{.ldif = test::people(kUsers)}};
    TcpRelay m_relay{m_slapd.port()};
};

TEST_F(NetworkFaultsTest, answersMayBreakOffAtEveryByte) { breakOff(Direction::toClient, Ending::close); }

TEST_F(NetworkFaultsTest, requestsMayBreakOffAtEveryByte) { breakOff(Direction::toServer, Ending::close); }

TEST_F(NetworkFaultsTest, answersMayEndInAResetAtEveryByte) { breakOff(Direction::toClient, Ending::reset); }

TEST_F(NetworkFaultsTest, requestsMayEndInAResetAtEveryByte) { breakOff(Direction::toServer, Ending::reset); }

TEST_F(NetworkFaultsTest, answersMayBeHalfClosedAtEveryByte)
{
    breakOff(Direction::toClient, Ending::halfClose);
}

TEST_F(NetworkFaultsTest, requestsMayBeHalfClosedAtEveryByte)
{
    breakOff(Direction::toServer, Ending::halfClose);
}

TEST_F(NetworkFaultsTest, answersMayStallBetweenAnyTwoMessagesAndNothingIsLost)
{
    // The root DSE and its end, the answer to the bind, two pages of users and their ends.
    constexpr std::size_t kMessages = 8;
    for (std::size_t before = 0; before < kMessages; ++before) {
        SCOPED_TRACE("before message " + std::to_string(before + 1));
        const test::Gate goOn;
        m_relay.passEverything();
        const test::Gate reached = m_relay.hold(Direction::toClient, TcpRelay::messages(before), goOn);
        auto talking = std::async(std::launch::async, [&] { return talk(m_relay.url()); });
        reached.wait("the stall");
        goOn.open();
        const Outcome outcome = talking.get();
        EXPECT_EQ(outcome.result, Result::ok);
        EXPECT_EQ(outcome.users, kUsers);
    }
}

TEST_F(NetworkFaultsTest, aServerMayDieAndComeBackBetweenTwoFetches)
{
    Settings settings;
    settings.uri = urlOf(m_slapd.url());
    const SearchFilter everybody{qt("ou=people,dc=example,dc=test"), {}};
    const auto fetch = [&](Manager& manager) {
        Deliveries<User> users;
        manager.fetchUsersAsync(users.handler(), everybody);
        users.waitForEnd();
        EXPECT_EQ(users.finals(), 1);
        return std::pair(users.results().back(), users.records().size());
    };
    const auto manager = createManagerOrThrow(settings);
    EXPECT_EQ(fetch(*manager), std::pair(Result::ok, kUsers));

    m_slapd.stop();
    EXPECT_EQ(fetch(*manager), std::pair(Result::connectError, std::size_t{0}));
    m_slapd.start();

    // The connection is gone for good; a new manager makes a new one.
    EXPECT_EQ(fetch(*manager), std::pair(Result::connectError, std::size_t{0}));
    EXPECT_EQ(fetch(*createManagerOrThrow(settings)), std::pair(Result::ok, kUsers));
}

// A sanitizer needs descriptors, too, to look at memory.
#if !TAVO_SANITIZED
TEST_F(NetworkFaultsTest, aProcessOutOfDescriptorsGetsAnErrorAndRecovers)
{
    const std::string url = m_slapd.url();
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit normal = limit;
    // Everything below the lowest free number is in use.
    const int lowestFree = dup(STDERR_FILENO);
    close(lowestFree);
    limit.rlim_cur = static_cast<rlim_t>(lowestFree);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    Settings settings;
    settings.uri = urlOf(url);
    settings.adminDn = qt(m_slapd.rootDn());
    settings.adminPassword = qt(m_slapd.rootPassword());
    std::optional<BaseError> refused;
    try {
        createManagerOrThrow(settings);
    } catch (const BaseError& error) {
        refused = error;
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &normal), 0);

    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->ldapCode, LDAP_SERVER_DOWN);
    EXPECT_EQ(talk(url).users, kUsers);
}
#endif

} // namespace
} // namespace tavo::ldap
