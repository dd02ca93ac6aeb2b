#include <ldap/private/client_call.h>

#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

namespace tavo::ldap {
namespace {

bool isPending()
{
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

bool isBlocked()
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, SIGPIPE) == 1;
}

/// What the client library does when the server has closed the connection.
int writeToNobody()
{
    int ends[2];
    if (pipe(ends) != 0) {
        return -2;
    }
    close(ends[0]);
    const auto written = write(ends[1], "x", 1);
    const int error = errno;
    close(ends[1]);
    errno = error;
    return static_cast<int>(written);
}

TEST(SigpipeTest, survivesAWriteToAClosedConnection)
{
    const auto [code, systemError] = callClient([] { return writeToNobody(); });
    EXPECT_EQ(code, -1);
    EXPECT_EQ(systemError, EPIPE);
    EXPECT_FALSE(isPending());
    EXPECT_FALSE(isBlocked());
}

TEST(SigpipeTest, leavesAPendingSignalOfTheHostAlone)
{
    sigset_t sigpipe;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
    pthread_kill(pthread_self(), SIGPIPE);
    ASSERT_TRUE(isPending());
    callClient([] { return writeToNobody(); });
    EXPECT_TRUE(isPending());
    EXPECT_TRUE(isBlocked());
    int received = 0;
    sigwait(&sigpipe, &received);
    pthread_sigmask(SIG_UNBLOCK, &sigpipe, nullptr);
}

TEST(SigpipeTest, keepsErrnoOfTheCall)
{
    const auto [code, systemError] = callClient([] {
        errno = EXDEV;
        return 7;
    });
    EXPECT_EQ(code, 7);
    EXPECT_EQ(systemError, EXDEV);
    EXPECT_EQ(errno, EXDEV);
}

} // namespace
} // namespace tavo::ldap
