#include "support/black_hole.h"
#include "support/reserved_port.h"
#include "support/temporary_directory.h"
#include "support/threads_end_here.h"
#include "support/thrown_by.h"
#include <ldap/error.h>
#include <ldap/private/wire/connector.h>
#include <ldap/private/wire/interruption.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace tavo::ldap {
namespace {

using namespace std::chrono_literals;

using test::BlackHole;
using test::thrownBy;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::SizeIs;

QString numbered(int port) { return QStringLiteral("127.0.0.1:%1").arg(port); }

SocketAddress addressOf(const std::string& url)
{
    const auto addresses = Server::ofUrl(QString::fromStdString(url)).addresses();
    EXPECT_THAT(addresses, SizeIs(1));
    return addresses.at(0);
}

/// A socket of this machine that takes connections, or one that has the port and takes none.
class Listener
{
public:
    explicit Listener(bool takesConnections = true)
        : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(m_socket.number(), generic, size), 0);
        EXPECT_EQ(getsockname(m_socket.number(), generic, &size), 0);
        EXPECT_TRUE(!takesConnections || listen(m_socket.number(), 8) == 0);
        m_port = ntohs(address.sin_port);
    }

    std::string url() const { return "ldap://127.0.0.1:" + std::to_string(m_port); }
    int port() const { return m_port; }

private:
    Socket m_socket;
    int m_port = 0;
};

/// The port that the socket is connected to.
int peerOf(const Socket& socket)
{
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    getpeername(socket.number(), reinterpret_cast<sockaddr*>(&peer), &size);
    return ntohs(peer.sin_port);
}

auto failedWith(int systemError) { return Field(&ConnectFailure::Try::systemError, systemError); }

class ConnectorTest : public ::testing::Test
{
protected:
    test::NothingIsLeft m_nothingIsLeft;
};

TEST_F(ConnectorTest, TakesTheFirstAddressThatAnswers)
{
    const Listener first;
    const Listener second;
    Connector connector({addressOf(first.url()), addressOf(second.url())}, std::nullopt, nullptr);
    const Socket socket = connector.connect();
    EXPECT_EQ(peerOf(socket), first.port());
    EXPECT_THAT(connector.tries(), IsEmpty());
}

TEST_F(ConnectorTest, GoesOnAtOnceBehindAnAddressThatRefuses)
{
    const Listener dead(false);
    const Listener good;
    Connector connector({addressOf(dead.url()), addressOf(good.url())}, std::nullopt, nullptr);
    const Socket socket = connector.connect();
    EXPECT_EQ(peerOf(socket), good.port());
    EXPECT_THAT(connector.tries(), ElementsAre(failedWith(ECONNREFUSED)));
    EXPECT_EQ(connector.tries().front().address, numbered(dead.port()));
}

// Each would have the kernel's two minutes to itself.
TEST_F(ConnectorTest, DoesNotWaitForSilentAddressesBeforeAGoodOne)
{
    const BlackHole first;
    const BlackHole second;
    const Listener good;
    Connector connector({addressOf(first.url()), addressOf(second.url()), addressOf(good.url())},
        TimeLimit::Clock::now() + 1h, nullptr);
    const Socket socket = connector.connect();
    EXPECT_EQ(peerOf(socket), good.port());
    EXPECT_THAT(connector.tries(), IsEmpty());
}

TEST_F(ConnectorTest, FailsWhenAllAddressesDo)
{
    const Listener first(false);
    const Listener second(false);
    Connector connector({addressOf(first.url()), addressOf(second.url())}, std::nullopt, nullptr);
    EXPECT_LT(connector.connect().number(), 0);
    EXPECT_THAT(connector.tries(), ElementsAre(failedWith(ECONNREFUSED), failedWith(ECONNREFUSED)));
}

TEST_F(ConnectorTest, GivesUpAtItsDeadlineAndNamesWhatItTried)
{
    const Listener refusing(false);
    const BlackHole silent;
    const auto deadline = TimeLimit::Clock::now() + 500ms;
    Connector connector({addressOf(refusing.url()), addressOf(silent.url())}, deadline, nullptr);
    EXPECT_LT(connector.connect().number(), 0);
    EXPECT_GE(TimeLimit::Clock::now(), deadline);
    EXPECT_THAT(connector.tries(), ElementsAre(failedWith(ECONNREFUSED), failedWith(ETIMEDOUT)));
}

TEST_F(ConnectorTest, GivesUpWhenItIsInterrupted)
{
    const BlackHole silent;
    Interruption interruption;
    Connector connector({addressOf(silent.url())}, std::nullopt, &interruption);
    std::thread other([&] { interruption.interrupt(); });
    EXPECT_LT(connector.connect().number(), 0);
    other.join();
    EXPECT_TRUE(connector.tries().empty() || connector.tries().front().systemError == ECANCELED);
}

TEST_F(ConnectorTest, TriesNothingAfterAnInterruption)
{
    const Listener good;
    Interruption interruption;
    interruption.interrupt();
    Connector connector({addressOf(good.url())}, std::nullopt, &interruption);
    EXPECT_LT(connector.connect().number(), 0);
}

TEST_F(ConnectorTest, ConnectsToTheSocketOfAPath)
{
    const test::TemporaryDirectory directory;
    const std::string path = directory.path() / "a server";
    const Socket listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener.number(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener.number(), 1), 0);
    std::string encoded;
    for (const char c : path) {
        encoded += c == '/' ? "%2F" : c == ' ' ? "%20" : std::string(1, c);
    }
    Connector connector({addressOf("ldapi://" + encoded)}, std::nullopt, nullptr);
    EXPECT_GE(connector.connect().number(), 0);

    Connector missing({addressOf("ldapi://" + encoded + "x")}, std::nullopt, nullptr);
    EXPECT_LT(missing.connect().number(), 0);
    EXPECT_THAT(missing.tries(), ElementsAre(failedWith(ENOENT)));
    EXPECT_EQ(missing.tries().front().address, QString::fromStdString(path + "x"));
}

TEST(ServerTest, HasTheDefaultPortOfItsScheme)
{
    EXPECT_EQ(Server::ofUrl(QStringLiteral("ldap://host")).port, "389");
    EXPECT_EQ(Server::ofUrl(QStringLiteral("LDAPS://host/")).port, "636");
    EXPECT_EQ(Server::ofUrl(QStringLiteral("ldap://host:1389")).port, "1389");
    EXPECT_EQ(Server::ofUrl(QStringLiteral("<URL:ldaps://host>")).port, "636");
    EXPECT_TRUE(Server::ofUrl(QStringLiteral("<LDAPI://%2Frun%2Fldapi>")).isLocal);
}

TEST(ServerTest, TakesAnAddressOfSixteenBytes)
{
    const Server server = Server::ofUrl(QStringLiteral("ldap://[::1]:1389"));
    EXPECT_EQ(server.host, "::1");
}

TEST(ServerTest, RefusesWhatNamesNoServer)
{
    for (const char* url : {"ldapi://", "http://host", "ldap://host:port"}) {
        const BaseError error = thrownBy<BaseError>([&] { Server::ofUrl(QString::fromLatin1(url)); });
        EXPECT_EQ(error.ldapCode, LDAP_PARAM_ERROR) << url;
        EXPECT_EQ(error.connectFailure.kind, ConnectFailure::Kind::invalidUrl) << url;
    }
    const QString tooLong = QStringLiteral("ldapi://%2F") + QString(200, QLatin1Char('x'));
    EXPECT_EQ(thrownBy<BaseError>([&] { Server::ofUrl(tooLong).addresses(); }).systemError, ENAMETOOLONG);
}

TEST(ServerTest, SaysWhichNameCannotBeLookedUp)
{
    // RFC 6761: no such name exists.
    const BaseError error =
        thrownBy<BaseError>([] { Server::ofUrl(QStringLiteral("ldap://no.invalid")).addresses(); });
    EXPECT_EQ(error.ldapCode, LDAP_SERVER_DOWN);
    EXPECT_EQ(error.connectFailure.kind, ConnectFailure::Kind::unknownHost);
    EXPECT_TRUE(error.connectFailure.detail.contains(QLatin1String("no.invalid")));
}

} // namespace
} // namespace tavo::ldap
