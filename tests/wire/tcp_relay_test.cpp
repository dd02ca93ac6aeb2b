#include "support/scripted_server.h"
#include "support/tcp_client.h"
#include "support/tcp_relay.h"
#include "support/temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <memory>
#include <string>
#include <vector>

namespace tavo::test {

namespace {

using Direction = TcpRelay::Direction;
using Ending = TcpRelay::Ending;

const Bytes kWhoAmI = encodeMessage(1, tlv(0x77, tlv(0x80, kWhoAmIOid)), {});

/// A server whose answer to every request is `steps`, and a relay in front of it.
class RelayedServer : public ::testing::Test
{
protected:
    void answers(const Steps& steps)
    {
        server.otherwise([steps](const Request&) { return steps; });
    }

    ScriptedServer server;
    TcpRelay relay{server.port()};
};

TEST_F(RelayedServer, GetsAndGivesEveryByteUnchanged)
{
    Bytes everyByte;
    for (int i = 0; i < 256; ++i)
        everyByte += static_cast<char>(i);
    answers(raw(everyByte));
    const TcpClient client(relay.port());

    client.send(kWhoAmI);

    EXPECT_EQ(client.receive(256), everyByte);
    relay.waitForBytes(Direction::toClient, 256);
    EXPECT_EQ(relay.forwarded(Direction::toServer), kWhoAmI.size());
    EXPECT_EQ(relay.forwarded(Direction::toClient), 256U);
    EXPECT_EQ(relay.connections(), 1U);
}

TEST_F(RelayedServer, AddsBytesAtAPoint)
{
    answers(raw("abcd"));
    const Gate isAdded = relay.insert(Direction::toClient, TcpRelay::bytes(2), "xyz");
    const TcpClient client(relay.port());

    client.send(kWhoAmI);

    EXPECT_EQ(client.receive(7), "abxyzcd");
    EXPECT_TRUE(isAdded.isOpen());
}

TEST_F(RelayedServer, SendsMoreThanAnyBufferHoldsToAClientThatReadsLate)
{
    const Bytes big(8U << 20U, 'b');
    answers({raw(big), closeConnection()});
    const TcpClient client(relay.port());
    client.send(kWhoAmI);
    server.waitForRequests(1);

    EXPECT_EQ(client.receive(big.size()), big);
    EXPECT_EQ(client.receive(), "");
    client.shutDown();
    relay.waitUntilIdle();
}

TEST_F(RelayedServer, IsHeldBackAtAByteUntilTheGateOpens)
{
    answers(raw("abcdef"));
    const Gate goOn;
    const Gate reached = relay.hold(Direction::toClient, TcpRelay::bytes(2), goOn);
    const TcpClient client(relay.port());
    client.send(kWhoAmI);

    EXPECT_EQ(client.receive(2), "ab");
    reached.wait("the second byte");
    EXPECT_TRUE(client.nothingToRead());
    goOn.open();
    EXPECT_EQ(client.receive(4), "cdef");
}

TEST_F(RelayedServer, DoesNotSeeARequestThatIsHeldBack)
{
    answers(raw("x"));
    const Gate goOn;
    const Gate reached = relay.hold(Direction::toServer, TcpRelay::bytes(kWhoAmI.size() - 1), goOn);
    const TcpClient client(relay.port());
    client.send(kWhoAmI);
    reached.wait("all of the request but its last byte");
    relay.waitForBytes(Direction::toServer, kWhoAmI.size() - 1);

    EXPECT_TRUE(server.requests().empty());
    goOn.open();
    EXPECT_EQ(client.receive(), "x");
}

TEST_F(RelayedServer, IsHeldBackAtAMessageBoundaryEvenWhenMessagesComeTogether)
{
    const Bytes entryBytes = entry("cn=a").encode(Request());
    answers(together({raw(entryBytes), raw(entryBytes), done()}));
    const Gate goOn;
    relay.hold(Direction::toClient, TcpRelay::messages(1), goOn);
    const TcpClient client(relay.port());
    client.send(kWhoAmI);

    EXPECT_EQ(client.receive(entryBytes.size()), entryBytes);
    EXPECT_TRUE(client.nothingToRead());
    goOn.open();
    EXPECT_EQ(client.receive(entryBytes.size()), entryBytes);
}

TEST_F(RelayedServer, IsHeldBackFromTheStart)
{
    answers(raw("x"));
    const Gate goOn;
    const Gate reached = relay.hold(Direction::toServer, TcpRelay::messages(0), goOn);
    const TcpClient client(relay.port());
    client.send(kWhoAmI);
    reached.wait("the connection");

    EXPECT_EQ(relay.forwarded(Direction::toServer), 0U);
    goOn.open();
    EXPECT_EQ(client.receive(), "x");
}

TEST_F(RelayedServer, IsCutOffAfterSoManyBytes)
{
    answers(raw("abcdef"));
    const Gate ended = relay.cut(Direction::toClient, TcpRelay::bytes(3), Ending::close);
    const TcpClient client(relay.port());
    client.send(kWhoAmI);

    EXPECT_EQ(client.receive(6), "abc");
    EXPECT_EQ(client.receive(), "");
    ended.wait("the end");
    server.waitForClose(0);
    EXPECT_EQ(relay.openConnections(), 0U);
}

TEST_F(RelayedServer, IsCutOffWithAReset)
{
    answers(raw("abc"));
    relay.cut(Direction::toServer, TcpRelay::bytes(5), Ending::reset);
    const TcpClient client(relay.port());
    client.send(kWhoAmI);

    EXPECT_EQ(client.receive(), "(reset)");
    server.waitForClose(0);
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(RelayedServer, StillGetsRequestsWhenOnlyItsOwnDirectionIsCut)
{
    answers(raw("abc"));
    relay.cut(Direction::toClient, TcpRelay::bytes(1), Ending::halfClose);
    const TcpClient client(relay.port());
    client.send(kWhoAmI);

    EXPECT_EQ(client.receive(3), "a");
    EXPECT_EQ(client.receive(), "");
    client.send(kWhoAmI);
    server.waitForRequests(2);
}

TEST_F(RelayedServer, ResetsTheClientWhenItCannotBeReached)
{
    server.stopListening();
    const TcpClient client(relay.port());

    EXPECT_EQ(client.receive(), "(reset)");
    relay.waitUntilIdle();
}

TEST_F(RelayedServer, HasOnlyTheChosenConnectionHeldBack)
{
    answers(raw("x"));
    const Gate goOn;
    relay.hold(Direction::toClient, TcpRelay::bytes(0), goOn, 0);
    const TcpClient held(relay.port());
    relay.waitForConnections(1);
    const TcpClient free(relay.port());
    held.send(kWhoAmI);
    free.send(kWhoAmI);

    EXPECT_EQ(free.receive(), "x");
    EXPECT_TRUE(held.nothingToRead());
    goOn.open();
    EXPECT_EQ(held.receive(), "x");
}

TEST_F(RelayedServer, IsUndisturbedOnceEverythingPassesAgain)
{
    answers(raw("x"));
    relay.cut(Direction::toClient, TcpRelay::bytes(0), Ending::close);
    relay.passEverything();
    const TcpClient client(relay.port());
    client.send(kWhoAmI);

    EXPECT_EQ(client.receive(), "x");
}

TEST(TcpRelay, ReachesAServerOnAUnixSocket)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path() / "socket";
    const FileDescriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener.get(), 1), 0);
    const TcpRelay relay(path);
    const TcpClient client(relay.port());
    client.send("ping");
    client.shutDown();

    const FileDescriptor accepted(::accept(listener.get(), nullptr, nullptr));
    Bytes received(5, '?');
    // All that came until the end, which is the client's.
    received.resize(
        static_cast<std::size_t>(::recv(accepted.get(), received.data(), received.size(), MSG_WAITALL)));

    EXPECT_EQ(received, "ping");
    EXPECT_EQ(::send(accepted.get(), "pong", 4, MSG_NOSIGNAL), 4);
    EXPECT_EQ(client.receive(4), "pong");
}

TEST_F(RelayedServer, ServesThousandsOfShortConversationsThroughLibldap)
{
    constexpr std::size_t kConversations = 2000;
    answers(success());
    for (std::size_t i = 0; i < kConversations; ++i) {
        LDAP* ld = nullptr;
        ASSERT_EQ(ldap_initialize(&ld, relay.url().c_str()), LDAP_SUCCESS);
        const int version = LDAP_VERSION3;
        ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
        berval noPassword{0, nullptr};
        ASSERT_EQ(
            ldap_sasl_bind_s(ld, "", LDAP_SASL_SIMPLE, &noPassword, nullptr, nullptr, nullptr), LDAP_SUCCESS);
        ldap_unbind_ext_s(ld, nullptr, nullptr);
    }
    relay.waitUntilIdle();

    EXPECT_EQ(relay.connections(), kConversations);
    EXPECT_EQ(server.connections(), kConversations);
}

} // namespace

} // namespace tavo::test
