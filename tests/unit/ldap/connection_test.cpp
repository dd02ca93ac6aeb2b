#include <ldap/private/wire/connection.h>

#include <gtest/gtest.h>
#include <ldap.h>

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <memory>
#include <utility>

namespace tavo::ldap {
namespace {

using namespace std::chrono_literals;

class ConnectionTest : public ::testing::Test
{
protected:
    ConnectionTest()
    {
        std::array<int, 2> pair{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
        m_socket = m_connection->take(Socket(pair[0]));
        m_peer = Socket(pair[1]);
    }

    void serverSends(std::string_view bytes) const
    {
        EXPECT_EQ(::send(m_peer.number(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

    ssize_t receive()
    {
        errno = 0;
        std::array<char, 16> bytes{};
        return m_connection->receive(m_socket, bytes.data(), bytes.size());
    }

    bool isEnded() const
    {
        char next = 0;
        return recv(m_peer.number(), &next, 1, MSG_DONTWAIT) == 0;
    }

    const std::shared_ptr<Connection> m_connection = Connection::make({}, QStringLiteral("ldap://host"));
    int m_socket = -1;
    Socket m_peer;
};

TEST_F(ConnectionTest, EndsAtItsLimitThoughTheServerNeverPauses)
{
    TimeLimit limit(m_connection.get(), Limit::connect, 1h);
    serverSends("a");
    EXPECT_EQ(receive(), 1);
    limit.switchTo(Limit::connect, 1h, -1s);
    serverSends("b");
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(m_connection->outcome({LDAP_SERVER_DOWN, 0}).code, LDAP_TIMEOUT);
    EXPECT_TRUE(isEnded());
}

TEST_F(ConnectionTest, DoesNotWaitForAThreadThatIsClosingIt)
{
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    serverSends("a");
    EXPECT_EQ(receive(), 1);
}

TEST_F(ConnectionTest, KeepsTheFirstReasonForItsEnd)
{
    m_connection->interrupt();
    m_connection->endByLimit(Limit::answer, 1s);
    EXPECT_EQ(m_connection->outcome({LDAP_SERVER_DOWN, 0}).code, LDAP_USER_CANCELLED);
    EXPECT_TRUE(isEnded());
}

TEST_F(ConnectionTest, ChangesNothingAboutACallThatTheServerHasAnswered)
{
    m_connection->interrupt();
    EXPECT_EQ(m_connection->outcome({LDAP_INVALID_CREDENTIALS, 0}).code, LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(m_connection->outcome({LDAP_SUCCESS, 0}).code, LDAP_SUCCESS);
}

// Its number may be another socket's by now.
TEST_F(ConnectionTest, TouchesNoSocketThatItDoesNotOwn)
{
    EXPECT_FALSE(m_connection->close(m_socket + 1));
    m_connection->disown();
    EXPECT_FALSE(m_connection->close(m_socket));
    m_connection->interrupt();
    EXPECT_FALSE(isEnded());
    ::close(m_socket);
}

TEST_F(ConnectionTest, ClosesItsSocketOnce)
{
    EXPECT_TRUE(m_connection->close(m_socket));
    EXPECT_TRUE(isEnded());
    EXPECT_FALSE(m_connection->close(m_socket));
}

} // namespace
} // namespace tavo::ldap
