// The fixtures that every other test leans on.
#include "support/child_process.h"
#include "support/deadline.h"
#include "support/reserved_port.h"
#include "support/temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <csignal>
#include <mutex>
#include <string>
#include <thread>

namespace tavo::test {
namespace {

using namespace std::chrono_literals;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
namespace fs = std::filesystem;

/// Named, so that it can be looked for in the stacks.
[[noreturn]] __attribute__((noinline)) void waitForNothing()
{
    std::mutex mutex;
    std::condition_variable never;
    std::unique_lock lock(mutex);
    for (;;)
        never.wait(lock);
}

const ::testing::TestInfo& thisTest() { return *::testing::UnitTest::GetInstance()->current_test_info(); }

TEST(DeadlineTest, TestThatHangsAbortsWithTheStacksOfAllItsThreads)
{
    const auto hang = [] {
        Deadline deadline(100ms);
        deadline.OnTestStart(thisTest());
        std::thread(waitForNothing).detach();
        waitForNothing();
    };
    const std::string name = thisTest().name();
    const std::string stack = "(.|\n)*thread(.|\n)*waitForNothing";
    EXPECT_EXIT(hang(), ::testing::KilledBySignal(SIGABRT),
        name + ".*has passed its deadline of 100 ms" + stack + stack);
}

TEST(DeadlineTest, TestThatHasEndedIsLeftAlone)
{
    const auto endOneHangInAnother = [] {
        Deadline ended(300ms);
        ended.OnTestStart(thisTest());
        ended.OnTestEnd(thisTest());
        Deadline running(600ms);
        running.OnTestStart(thisTest());
        waitForNothing();
    };
    EXPECT_EXIT(endOneHangInAnother(), ::testing::KilledBySignal(SIGABRT),
        AllOf(HasSubstr("deadline of 600 ms"), Not(HasSubstr("deadline of 300 ms"))));
}

TEST(ChildProcessTest, TellsExitStatusAndSignal)
{
    EXPECT_EQ(run({.words = {"sh", "-c", "exit 7"}}), 7);
    EXPECT_EQ(run({.words = {"sh", "-c", "kill -KILL $$"}}), 128 + SIGKILL);
}

TEST(ChildProcessTest, ProgramThatIsNotThereIsNamed)
{
    try {
        run({.words = {"/no/such/program"}});
        FAIL() << "must throw";
    } catch (const std::system_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("/no/such/program"));
        EXPECT_EQ(error.code().value(), ENOENT);
    }
}

TEST(ChildProcessTest, WritesToItsLogAndSeesTheChangedEnvironment)
{
    const TemporaryDirectory directory;
    setenv("TAVO_TEST_REMOVED", "still there", 1);
    const int status =
        run({.words = {"sh", "-c", "echo $TAVO_TEST_ADDED; echo ${TAVO_TEST_REMOVED-gone} >&2; pwd"},
            .log = directory.path() / "log",
            .environment = {{"TAVO_TEST_ADDED", "added"}, {"TAVO_TEST_REMOVED", std::nullopt}},
            .directory = "/"});
    unsetenv("TAVO_TEST_REMOVED");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(directory.path() / "log"), "added\ngone\n/\n");
}

TEST(ChildProcessTest, IsGoneWithItsOwner)
{
    pid_t pid = 0;
    {
        ChildProcess child({.words = {"sleep", "1000"}});
        pid = child.pid();
        EXPECT_FALSE(child.waitForExit(0ms));
        EXPECT_EQ(::kill(pid, 0), 0);
    }
    EXPECT_EQ(::kill(pid, 0), -1);
}

TEST(ChildProcessTest, SuspendedChildCanBeStopped)
{
    ChildProcess child({.words = {"sleep", "1000"}});
    child.suspend();
    EXPECT_EQ(child.stop(), 128 + SIGTERM);
}

TEST(ChildProcessTest, DiesWithTheThreadThatStartedIt)
{
    std::optional<ChildProcess> child;
    std::thread([&child] { child.emplace(Command{.words = {"sleep", "1000"}}); }).join();
    ASSERT_TRUE(child->waitForExit(10s));
    EXPECT_EQ(child->exitStatus(), 128 + SIGKILL);
}

TEST(TemporaryDirectoryTest, IsGoneWithItsContents)
{
    fs::path path;
    {
        const TemporaryDirectory directory;
        path = directory.path();
        EXPECT_EQ(readFile(directory.write("file", "content")), "content");
        EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_all);
    }
    EXPECT_FALSE(fs::exists(path));
}

TEST(ReservedPortTest, PortsDifferAndRefuseConnections)
{
    const ReservedPort first;
    const ReservedPort second;
    EXPECT_NE(first.number(), second.number());
    EXPECT_FALSE(isListening(first.number()));
}

} // namespace
} // namespace tavo::test
