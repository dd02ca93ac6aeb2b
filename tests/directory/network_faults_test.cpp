// A small conversation with a real server, broken off at every byte that it consists of.
#include "faulty_network.h"

#include "support/sanitized.h"

#include <gtest/gtest.h>
#include <ldap.h>

#include <sys/resource.h>
#include <unistd.h>

#include <optional>
#include <string>

namespace tavo::ldap {
namespace {

using test::FaultyNetwork;
using test::qt;
using test::Slapd;

using Direction = FaultyNetwork::Direction;
using Ending = FaultyNetwork::Ending;

constexpr std::size_t kUsers = 3;
constexpr std::size_t kStride = test::sanitized ? 7 : 1;

class NetworkFaultsTest : public ::testing::Test
{
protected:
    /// Three users on two pages.
    test::Conversation conversation() const
    {
        Settings settings;
        settings.adminDn = qt(m_slapd.rootDn());
        settings.adminPassword = qt(m_slapd.rootPassword());
        settings.searchPageSize = 2;
        return {settings, {qt("ou=people,dc=example,dc=test"), {}}, kUsers};
    }

    /// At each of its bytes; at fewer in a build that is slow.
    void breakOff(Direction direction, Ending ending)
    {
        FaultyNetwork(conversation(), m_slapd.port()).breakOffAtBytes(direction, ending, kStride);
    }

    Slapd m_slapd{{.ldif = test::people(kUsers)}};
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
    FaultyNetwork(conversation(), m_slapd.port()).stallBetweenMessages(Direction::toClient);
}

TEST_F(NetworkFaultsTest, aServerMayDieAndComeBackBetweenTwoFetches)
{
    expectNewManagersAloneToSurvive(
        conversation(), m_slapd.url(), [&] { m_slapd.stop(); }, [&] { m_slapd.start(); });
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
    std::optional<BaseError> refused;
    try {
        conversation().createManager(url);
    } catch (const BaseError& error) {
        refused = error;
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &normal), 0);

    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->ldapCode, LDAP_SERVER_DOWN);
    EXPECT_EQ(conversation().talk(url).users, kUsers);
}
#endif

} // namespace
} // namespace tavo::ldap
