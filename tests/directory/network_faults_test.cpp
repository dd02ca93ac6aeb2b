// A small conversation with a real server, broken off at every byte that it consists of.
#include "faulty_network.h"
#include "support/blocked_call.h"
#include "support/sanitized.h"
#include "support/test_ca.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavo::ldap {
namespace {

using test::FaultyNetwork;
using test::Gate;
using test::qt;
using test::Slapd;
using test::TcpRelay;
using ::testing::AnyOf;
using ::testing::ElementsAre;

using Direction = FaultyNetwork::Direction;
using Ending = FaultyNetwork::Ending;

constexpr std::size_t kUsers = 3;
constexpr std::size_t kStride = test::sanitized ? 7 : 1;

/// The authority that this process trusts.
test::TestCa& trustedCa()
{
    static test::TestCa ca;
    return ca;
}

class NetworkFaultsTest : public ::testing::Test
{
protected:
    // The client library reads it once, when a process first uses it.
    NetworkFaultsTest() { setenv("LDAPTLS_CACERT", trustedCa().certificate().c_str(), 1); }

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

TEST_F(NetworkFaultsTest, AnswersMayBreakOffAtEveryByte) { breakOff(Direction::toClient, Ending::close); }

TEST_F(NetworkFaultsTest, RequestsMayBreakOffAtEveryByte) { breakOff(Direction::toServer, Ending::close); }

TEST_F(NetworkFaultsTest, AnswersMayEndInAResetAtEveryByte) { breakOff(Direction::toClient, Ending::reset); }

TEST_F(NetworkFaultsTest, RequestsMayEndInAResetAtEveryByte) { breakOff(Direction::toServer, Ending::reset); }

TEST_F(NetworkFaultsTest, AnswersMayBeHalfClosedAtEveryByte)
{
    breakOff(Direction::toClient, Ending::halfClose);
}

TEST_F(NetworkFaultsTest, RequestsMayBeHalfClosedAtEveryByte)
{
    breakOff(Direction::toServer, Ending::halfClose);
}

TEST_F(NetworkFaultsTest, AnswersMayStallBetweenAnyTwoMessagesAndNothingIsLost)
{
    FaultyNetwork(conversation(), m_slapd.port()).stallBetweenMessages(Direction::toClient);
}

TEST_F(NetworkFaultsTest, AServerMayDieAndComeBackBetweenTwoFetches)
{
    const auto comeBack = [&] { m_slapd.start(); };
    expectNewManagersAloneToSurvive(
        conversation(), m_slapd.url(), [&] { m_slapd.stop(); }, comeBack);
    expectNewManagersAloneToSurvive(
        conversation(), m_slapd.url(), [&] { m_slapd.kill(); }, comeBack);
}

/// A fetch whose handler is busy with the first page for as long as a test wants, with nothing of the second
/// one on its way.
class SlowFetch
{
public:
    /// The connection ends like this when it is broken, or goes on.
    SlowFetch(const test::Conversation& conversation, std::uint16_t port, std::optional<Ending> ending)
        : m_relay(port)
    {
        // The root DSE and its end, the bind's answer, two users and their end.
        const auto firstPage = TcpRelay::messages(6);
        m_relay.hold(Direction::toClient, firstPage, m_goOn);
        if (ending) {
            m_broken = m_relay.cut(Direction::toClient, firstPage, *ending);
        }
        m_threads.emplace();
        m_manager = conversation.createManager(m_relay.url());
        m_manager->fetchUsersAsync(
            [this](Result result, std::vector<User> users) {
                m_users.add(result, std::move(users));
                if (result == Result::moreResults) {
                    m_busy.open();
                    m_done.wait("the end of the handler's work");
                }
            },
            conversation.everybody);
        m_busy.wait("the first page");
    }

    void breakConnection()
    {
        m_goOn.open();
        m_broken.wait("the end of the connection");
    }

    void letHandlerReturn() { m_done.open(); }

    void destroyManager() { m_manager.reset(); }

    int finals() const { return m_users.finals(); }

    /// Those of all its calls, when nobody is left who could make another.
    std::vector<Result> results()
    {
        m_users.waitForEnd();
        m_manager.reset();
        m_goOn.open();
        m_threads.reset();
        return m_users.results();
    }

private:
    const Gate m_goOn;
    const Gate m_busy;
    const Gate m_done;
    Gate m_broken;
    TcpRelay m_relay;
    test::Deliveries<User> m_users;
    std::optional<test::ThreadsEndHere> m_threads;
    std::unique_ptr<Manager> m_manager;
};

TEST_F(NetworkFaultsTest, BusyHandlerGetsOneFinalCallWhenTheConnectionBreaks)
{
    for (const auto ending : FaultyNetwork::endings) {
        SCOPED_TRACE(static_cast<int>(ending));
        SlowFetch fetch(conversation(), m_slapd.port(), ending);
        fetch.breakConnection();
        fetch.letHandlerReturn();
        EXPECT_THAT(fetch.results(), ElementsAre(Result::moreResults, Result::connectError));
    }
}

TEST_F(NetworkFaultsTest, BusyHandlerGetsOneFinalCallWhenTheManagerIsDestroyed)
{
    SlowFetch fetch(conversation(), m_slapd.port(), std::nullopt);
    test::BlockedCall destroying([&] { fetch.destroyManager(); });
    EXPECT_TRUE(destroying.isWaiting());
    EXPECT_EQ(fetch.finals(), 0);
    fetch.letHandlerReturn();
    destroying.get();
    EXPECT_THAT(fetch.results(), ElementsAre(Result::moreResults, Result::cancelled));
}

/// Whichever is first.
TEST_F(NetworkFaultsTest, BusyHandlerGetsOneFinalCallWhenConnectionAndManagerGo)
{
    for (int i = 0; i < 20; ++i) {
        SlowFetch fetch(conversation(), m_slapd.port(), Ending::reset);
        fetch.breakConnection();
        test::BlockedCall destroying([&] { fetch.destroyManager(); });
        EXPECT_TRUE(destroying.isWaiting());
        EXPECT_EQ(fetch.finals(), 0);
        fetch.letHandlerReturn();
        destroying.get();
        EXPECT_THAT(fetch.results(),
            ElementsAre(Result::moreResults, AnyOf(Result::connectError, Result::cancelled)));
    }
}

// A sanitizer needs descriptors, too: UndefinedBehaviorSanitizer looks through a pipe whether memory may be
// read, and takes an object for none when it can't have one.
#if !TAVO_SANITIZED
/// This process can open so many descriptors more, and no others, while this lives.
class DescriptorsLeft
{
public:
    explicit DescriptorsLeft(int count)
    {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &m_normal), 0);
        rlimit few = m_normal;
        few.rlim_cur = lowestFree(count);
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    }
    ~DescriptorsLeft() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &m_normal), 0); }
    DescriptorsLeft(const DescriptorsLeft&) = delete;
    DescriptorsLeft& operator=(const DescriptorsLeft&) = delete;

private:
    /// The lowest free number once `count` more are in use.
    static rlim_t lowestFree(int count)
    {
        const int free = dup(STDERR_FILENO);
        const rlim_t number = count == 0 ? static_cast<rlim_t>(free) : lowestFree(count - 1);
        close(free);
        return number;
    }

    rlimit m_normal{};
};

/// Has a conversation with none left, with one, and so on, until there are enough.
void runOutOfDescriptors(const test::Conversation& conversation, const std::string& url)
{
    constexpr int kEnough = 20;
    test::Outcome outcome;
    for (int left = 0; outcome.result != Result::ok && left < kEnough; ++left) {
        SCOPED_TRACE(std::to_string(left) + " descriptors left");
        test::Deliveries<User> users;
        {
            // Needs one itself, and gets it at its end.
            const test::ThreadsEndHere threads;
            const DescriptorsLeft few(left);
            outcome = conversation.talk(url, users);
        }
        EXPECT_EQ(outcome.finals, outcome.error ? 0 : 1);
        // LDAP_OPT_ERROR is the same number.
        EXPECT_TRUE(left > 0 || outcome.error == LDAP_SERVER_DOWN);
        EXPECT_EQ(conversation.talk(url).users, kUsers);
    }
    EXPECT_EQ(outcome.users, kUsers);
}

TEST_F(NetworkFaultsTest, AProcessOutOfDescriptorsGetsAnErrorAndRecovers)
{
    runOutOfDescriptors(conversation(), m_slapd.url());
}

TEST_F(NetworkFaultsTest, AProcessOutOfDescriptorsGetsAnErrorFromStartTlsAndRecovers)
{
    const test::ServerCertificate certificate = trustedCa().issue();
    const Slapd slapd({.ldif = test::people(kUsers),
        .tls = test::SlapdTls{trustedCa().certificate(), certificate.certificate, certificate.key}});
    test::Conversation secure = conversation();
    secure.settings.startTls = true;
    // First the file of the authorities can't be read, then, where none is wanted, there is no connection.
    for (const bool ignores : {false, true}) {
        SCOPED_TRACE(ignores);
        secure.settings.ignoreCertificateErrors = ignores;
        runOutOfDescriptors(secure, slapd.url());
    }
}
#endif

} // namespace
} // namespace tavo::ldap
