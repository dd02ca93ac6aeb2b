#include <ldap/private/wire/socket_stream.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tavo::ldap {

namespace {

using namespace std::string_view_literals;

constexpr std::string_view kRequest = "\x30\x05\x02\x01\x01\x42\x00"sv;
constexpr std::string_view kClientHello = "\x16\x03\x01\x00\x05"sv;

/// A connection; the client's end is `socket`, the other one the server's.
class SocketStreamTest : public ::testing::Test
{
protected:
    SocketStreamTest()
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
        socket = ends[0];
        m_server = ends[1];
    }
    ~SocketStreamTest() override
    {
        close(socket);
        endServer();
    }

    void serverSends(std::string_view bytes) const
    {
        EXPECT_EQ(::send(m_server, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

    std::string serverReceives() const
    {
        std::array<char, 256> bytes{};
        const ssize_t count = recv(m_server, bytes.data(), bytes.size(), MSG_DONTWAIT);
        return {bytes.data(), static_cast<std::size_t>(count < 0 ? 0 : count)};
    }

    void endServer()
    {
        if (m_server != -1) {
            close(m_server);
        }
        m_server = -1;
    }

    std::string read(std::size_t size)
    {
        std::string bytes(size, '\0');
        const ssize_t count = stream.read(socket, bytes.data(), bytes.size());
        bytes.resize(static_cast<std::size_t>(count < 0 ? 0 : count));
        return bytes;
    }

    bool isSocketEmpty() const
    {
        char next = 0;
        return recv(socket, &next, 1, MSG_PEEK | MSG_DONTWAIT) <= 0;
    }

    int socket = -1;
    SocketStream stream;

private:
    int m_server = -1;
};

TEST_F(SocketStreamTest, ReadsAheadAndHandsOnAsMuchAsIsAskedFor)
{
    serverSends("abcdefghij");
    EXPECT_FALSE(stream.hasBytes());
    EXPECT_EQ(read(3), "abc");
    EXPECT_TRUE(isSocketEmpty());
    EXPECT_TRUE(stream.hasBytes());
    EXPECT_EQ(read(4), "defg");
    serverSends("kl");
    EXPECT_EQ(read(100), "hij");
    EXPECT_FALSE(stream.hasBytes());
    EXPECT_EQ(read(100), "kl");
}

TEST_F(SocketStreamTest, ReadsLargePiecesInPlace)
{
    const std::size_t large = 64 * 1024;
    const std::string more(large + 10, 'x');
    serverSends(more);
    EXPECT_EQ(read(more.size()), more);
    serverSends("defg");
    EXPECT_EQ(read(1), "d");
    EXPECT_EQ(read(large), "efg");
    EXPECT_FALSE(stream.hasBytes());
}

TEST_F(SocketStreamTest, TellsTheEndOnceAllIsRead)
{
    serverSends("ab");
    endServer();
    EXPECT_EQ(read(1), "a");
    EXPECT_EQ(read(1), "b");
    char next = 0;
    EXPECT_EQ(stream.read(socket, &next, 1), 0);
}

TEST_F(SocketStreamTest, WaitsAWhileForANonBlockingSocketAndNotTwiceInARow)
{
    EXPECT_EQ(fcntl(socket, F_SETFL, O_NONBLOCK), 0);
    char next = 0;
    std::vector<std::chrono::milliseconds> waits;
    for (int i = 0; i < 3; ++i) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(stream.read(socket, &next, 1), -1);
        EXPECT_EQ(errno, EAGAIN);
        waits.push_back(
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin));
    }
    EXPECT_LT(waits[1], waits[0]);
    EXPECT_LT(waits[1], waits[2]);
    serverSends("a");
    EXPECT_EQ(read(1), "a");
}

TEST_F(SocketStreamTest, LeavesNoErrorOfAWaitBehind)
{
    EXPECT_EQ(fcntl(socket, F_SETFL, O_NONBLOCK), 0);
    std::thread server([this] { serverSends("a"); });
    errno = 0;
    std::string bytes;
    while (bytes.empty()) {
        errno = 0;
        bytes = read(1);
    }
    EXPECT_EQ(errno, 0);
    server.join();
}

TEST_F(SocketStreamTest, StopsOfferingBytesThatNobodyReads)
{
    serverSends("abc");
    EXPECT_EQ(stream.readiness(), SocketStream::Readiness::nothing);
    EXPECT_EQ(read(1), "a");
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(stream.readiness(), SocketStream::Readiness::bytes);
    }
    EXPECT_EQ(read(1), "b");
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(stream.readiness(), SocketStream::Readiness::bytes);
    }
    EXPECT_EQ(stream.readiness(), SocketStream::Readiness::abandoned);
    EXPECT_EQ(stream.readiness(), SocketStream::Readiness::nothing);
}

TEST_F(SocketStreamTest, MayBeginWhereTlsHasBegun)
{
    SocketStream later(/*isEncrypted*/ true);
    serverSends("a session ticket");
    EXPECT_EQ(later.write(socket, "\x17\x03\x03"), 3);
}

TEST_F(SocketStreamTest, WritesToAnEndedConnectionWithoutASignal)
{
    // The default disposition: a signal would end this process.
    std::signal(SIGPIPE, SIG_DFL);
    endServer();
    EXPECT_EQ(stream.write(socket, kRequest), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(SocketStreamTest, FailsToStartTlsBehindBytesThatWereReadAhead)
{
    serverSends("answer, and one more");
    EXPECT_EQ(read(6), "answer");
    EXPECT_EQ(stream.write(socket, kRequest), static_cast<ssize_t>(kRequest.size()));
    EXPECT_EQ(serverReceives(), kRequest);

    EXPECT_EQ(stream.write(socket, kClientHello), -1);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_EQ(serverReceives(), "");
}

TEST_F(SocketStreamTest, FailsToStartTlsBehindBytesThatWaitInTheSocket)
{
    serverSends("x");
    EXPECT_EQ(stream.write(socket, kClientHello), -1);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_EQ(serverReceives(), "");
}

TEST_F(SocketStreamTest, WritesRecordsOfTlsWhateverHasComeSince)
{
    errno = 0;
    EXPECT_EQ(stream.write(socket, kClientHello), static_cast<ssize_t>(kClientHello.size()));
    EXPECT_EQ(errno, 0) << "would be taken for the reason of a failed handshake";
    serverSends("a session ticket, say");
    EXPECT_EQ(read(1), "a");
    EXPECT_EQ(stream.write(socket, "\x17\x03\x03"), 3);
}

TEST_F(SocketStreamTest, TakesTheRestOfARequestForNoTls)
{
    EXPECT_EQ(fcntl(socket, F_SETFL, O_NONBLOCK), 0);
    serverSends("x");
    std::string request(kRequest);
    request.append(4'000'000, '\x16');
    const ssize_t written = stream.write(socket, request);
    ASSERT_GT(written, 0);
    ASSERT_LT(written, static_cast<ssize_t>(request.size()));
    for (int i = 0; i < 100; ++i) {
        serverReceives();
    }
    const ssize_t more =
        stream.write(socket, std::string_view(request).substr(static_cast<std::size_t>(written)));
    EXPECT_TRUE(more > 0 || errno == EAGAIN) << errno;
}

TEST_F(SocketStreamTest, DropsWhatIsReadAheadWithTheConnection)
{
    serverSends("ab");
    EXPECT_EQ(read(1), "a");
    stream.reset();
    EXPECT_FALSE(stream.hasBytes());
    EXPECT_EQ(stream.write(socket, kClientHello), static_cast<ssize_t>(kClientHello.size()));
}

} // namespace

} // namespace tavo::ldap
