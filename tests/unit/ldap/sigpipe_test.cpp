#include <ldap/private/client_call.h>

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

int interruptions = 0;

} // namespace

/// Takes the place of the system's in this program, to be interrupted as often as a test says.
extern "C" int sigtimedwait(const sigset_t* set, siginfo_t* info, const timespec* timeout)
{
    if (interruptions > 0) {
        --interruptions;
        errno = EINTR;
        return -1;
    }
    return static_cast<int>(syscall(SYS_rt_sigtimedwait, set, info, timeout, _NSIG / 8));
}

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

TEST(SigpipeTest, SurvivesAWriteToAClosedConnection)
{
    const auto [code, systemError] = callClient([] { return writeToNobody(); });
    EXPECT_EQ(code, -1);
    EXPECT_EQ(systemError, EPIPE);
    EXPECT_FALSE(isPending());
    EXPECT_FALSE(isBlocked());
}

TEST(SigpipeTest, SurvivesItAlsoWhenOtherSignalsComeInBetween)
{
    interruptions = 2;
    callClient([] { return writeToNobody(); });
    EXPECT_EQ(interruptions, 0);
    EXPECT_FALSE(isPending());
}

TEST(SigpipeTest, LeavesAPendingSignalOfTheHostAlone)
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

TEST(SigpipeTest, KeepsErrnoOfTheCall)
{
    const auto [code, systemError] = callClient([] {
        errno = EXDEV;
        return 7;
    });
    EXPECT_EQ(code, 7);
    EXPECT_EQ(systemError, EXDEV);
    EXPECT_EQ(errno, EXDEV);
}

TEST(SigpipeTest, TakesNoEarlierErrorForTheCallsOwnAndLeavesItInErrno)
{
    errno = EXDEV;
    const auto [code, systemError] = callClient([] { return 7; });
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(code, 7);
    EXPECT_EQ(systemError, 0);
}

} // namespace
} // namespace tavo::ldap
