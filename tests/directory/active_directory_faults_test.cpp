// A small conversation with a real Active Directory domain, through a network that fails.
#include "active_directory_staff.h"
#include "faulty_network.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <future>

namespace tavo::ldap {
namespace {

using test::FaultyNetwork;
using test::Gate;
using test::qt;
using test::Samba;
using test::TcpRelay;

/// Those of the staff and the two that a new domain has.
constexpr std::size_t kUsers = test::kEnabled + 2;

/// How many bytes lie between two places where a conversation is broken off; 1 for more than an everyday run.
std::size_t stride()
{
    return static_cast<std::size_t>(test::numberFromEnvironment("TAVO_TEST_STRIDE", 499));
}

class ActiveDirectoryFaultsTest : public ::testing::Test
{
protected:
    /// One domain serves all tests of a process. Not set up for the suite: its tests would count as skipped
    /// where that fails.
    ActiveDirectoryFaultsTest()
    {
        if (samba) {
            return;
        }
        // Messages can only be told apart where they are not encrypted.
        samba = std::make_unique<Samba>(
            test::SambaOptions{.ldif = test::staff(), .lines = {"ldap server require strong auth = no"}});
        setenv("LDAPTLS_CACERT", samba->caCertificate().c_str(), 1);
    }

    static void TearDownTestSuite() { samba.reset(); }

    /// All users of the domain, on three pages.
    static test::Conversation conversation()
    {
        Settings settings;
        settings.adminDn = qt(Samba::administrator);
        settings.adminPassword = qt(Samba::password);
        settings.searchPageSize = 10;
        return {settings, {qt(Samba::suffix), {}}, kUsers};
    }

    static test::Conversation startTlsConversation()
    {
        test::Conversation secure = conversation();
        secure.settings.startTls = true;
        return secure;
    }

    static test::Conversation ldapsConversation()
    {
        test::Conversation secure = conversation();
        secure.scheme = "ldaps";
        secure.attempts = 2;
        return secure;
    }

    static void breakOffAtBytes(const test::Conversation& conversation, std::uint16_t port = Samba::port)
    {
        FaultyNetwork network(conversation, port, samba->address());
        for (const auto direction : FaultyNetwork::directions) {
            for (const auto ending : FaultyNetwork::endings) {
                network.breakOffAtBytes(direction, ending, stride());
            }
        }
    }

    static void expectNobody(const test::Outcome& outcome)
    {
        EXPECT_EQ(outcome.finals, 1);
        EXPECT_EQ(outcome.result, Result::ok);
        EXPECT_EQ(outcome.users, 0U);
    }

    static inline std::unique_ptr<Samba> samba;
};

TEST_F(ActiveDirectoryFaultsTest, ConversationsMayBreakOffBetweenAnyTwoMessages)
{
    FaultyNetwork network(conversation(), Samba::port, samba->address());
    for (const auto direction : FaultyNetwork::directions) {
        for (const auto ending : FaultyNetwork::endings) {
            network.breakOffBetweenMessages(direction, ending);
        }
    }
}

TEST_F(ActiveDirectoryFaultsTest, ConversationsMayBreakOffWithinAMessage) { breakOffAtBytes(conversation()); }

/// The one that `./dev check` breaks off after each byte.
TEST_F(ActiveDirectoryFaultsTest, ASmallConversationMayBreakOffAfterAnyByte)
{
    test::Conversation small = conversation();
    small.settings.searchPageSize = 2;
    small.everybody.filter =
        QStringLiteral("(|(sAMAccountName=user00)(sAMAccountName=user01)(sAMAccountName=user02))");
    small.allUsers = 3;
    FaultyNetwork network(small, Samba::port, samba->address());
    for (const auto direction : FaultyNetwork::directions) {
        for (const auto ending : FaultyNetwork::endings) {
            network.breakOffAtBytes(direction, ending, stride());
        }
    }
}

TEST_F(ActiveDirectoryFaultsTest, ConversationsAfterStartTlsMayBreakOffAnywhere)
{
    breakOffAtBytes(startTlsConversation());
}

TEST_F(ActiveDirectoryFaultsTest, ConversationsOverLdapsMayBreakOffAnywhere)
{
    breakOffAtBytes(ldapsConversation(), Samba::ldapsPort);
}

TEST_F(ActiveDirectoryFaultsTest, ConversationsMayStallBetweenAnyTwoMessagesAndNothingIsLost)
{
    FaultyNetwork network(conversation(), Samba::port, samba->address());
    for (const auto direction : FaultyNetwork::directions) {
        network.stallBetweenMessages(direction);
    }
}

TEST_F(ActiveDirectoryFaultsTest, ConversationsMayBreakOffAfterAStallBetweenAnyTwoMessages)
{
    FaultyNetwork network(conversation(), Samba::port, samba->address());
    for (const auto direction : FaultyNetwork::directions) {
        network.breakOffAfterStalls(direction, FaultyNetwork::Ending::reset);
    }
}

TEST_F(ActiveDirectoryFaultsTest, ManagerMayBeDestroyedWhileAFetchStallsAtAnyMessage)
{
    FaultyNetwork network(conversation(), Samba::port, samba->address());
    for (const auto direction : FaultyNetwork::directions) {
        network.giveUpBetweenMessages(direction);
    }
}

/// The question has a time limit, and no answer means OpenLDAP, whose users have another login.
TEST_F(ActiveDirectoryFaultsTest, DomainThatAnswersTooLateForDetectionHasNoUsers)
{
    test::Conversation hasty = conversation();
    // Samba counts in whole seconds of the clock: a limit of one may pass at once.
    hasty.settings.responseTimeout = std::chrono::seconds(2);
    TcpRelay relay(Samba::port, samba->address());
    const Gate answer;
    relay.hold(TcpRelay::Direction::toClient, TcpRelay::messages(0), answer);
    const Gate open;
    open.open();
    // The question, its abandoning, and the bind.
    const Gate goesOn = relay.hold(TcpRelay::Direction::toServer, TcpRelay::messages(3), open);
    auto talking = std::async(std::launch::async, [&] { return hasty.talk(relay.url()); });
    goesOn.wait("the bind");
    answer.open();
    expectNobody(talking.get());
}

/// The first one was the question, and what isn't answered is the same as above.
TEST_F(ActiveDirectoryFaultsTest, DomainReachedOnlyAfterDetectionFailedHasNoUsers)
{
    TcpRelay relay(Samba::ldapsPort, samba->address());
    relay.cut(TcpRelay::Direction::toClient, TcpRelay::bytes(0), TcpRelay::Ending::close, 0);
    expectNobody(ldapsConversation().talk(relay.url("ldaps")));
    EXPECT_EQ(relay.connections(), 2U);
}

TEST_F(ActiveDirectoryFaultsTest, AServerMayDieAndComeBackBetweenTwoFetches)
{
    expectNewManagersAloneToSurvive(
        conversation(), samba->url(), [] { samba->kill(); }, [] { samba->start(); });
}

} // namespace
} // namespace tavo::ldap
