#include "support/gate.h"
#include <ldap/private/search_threads.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <future>
#include <memory>
#include <thread>
#include <utility>

namespace tavo::ldap::search_threads {

namespace {

TEST(SearchThreadsTest, AreWaitedForInTheOrderInWhichTheyAnnouncedTheirEnd)
{
    EndingThreads threads;
    EXPECT_TRUE(threads.isDoneWith(threads.lastNumber(), nullptr));
    EndingThreads::Node first;
    EndingThreads::Node second;
    threads.add(first);
    const std::uint64_t beforeSecond = threads.lastNumber();
    threads.add(second);
    threads.add(first);
    const std::uint64_t both = threads.lastNumber();

    EXPECT_FALSE(threads.isDoneWith(beforeSecond, nullptr));
    threads.remove(first);
    EXPECT_TRUE(threads.isDoneWith(beforeSecond, nullptr));
    EXPECT_FALSE(threads.isDoneWith(both, nullptr));
    threads.remove(second);
    EXPECT_TRUE(threads.isDoneWith(both, nullptr));
}

// Or a process in which there is always one that is ending would never be done.
TEST(SearchThreadsTest, AreNotWaitedForWhenTheyAnnounceTheirEndLater)
{
    EndingThreads threads;
    const std::uint64_t nobody = threads.lastNumber();
    EndingThreads::Node later;
    threads.add(later);

    EXPECT_TRUE(threads.isDoneWith(nobody, nullptr));
}

TEST(SearchThreadsTest, DoNotWaitForThemselves)
{
    EndingThreads threads;
    EndingThreads::Node self;
    EndingThreads::Node other;
    threads.add(self);
    EXPECT_TRUE(threads.isDoneWith(threads.lastNumber(), &self));
    threads.add(other);

    EXPECT_FALSE(threads.isDoneWith(threads.lastNumber(), &self));
    EXPECT_FALSE(threads.isDoneWith(threads.lastNumber(), &other));
    threads.remove(other);
    EXPECT_TRUE(threads.isDoneWith(threads.lastNumber(), &self));
}

TEST(SearchThreadsTest, AreNotAwaitedAfterTheyHaveWithdrawn)
{
    EndingThreads threads;
    EndingThreads::Node thread;
    threads.add(thread);
    const std::uint64_t before = threads.lastNumber();
    threads.remove(thread);
    EXPECT_TRUE(threads.isDoneWith(threads.lastNumber(), nullptr));

    threads.add(thread);

    EXPECT_TRUE(threads.isDoneWith(before, nullptr));
    EXPECT_FALSE(threads.isDoneWith(threads.lastNumber(), nullptr));
}

TEST(SearchThreadsTest, LeaveTheQueueOnlyIfTheyWereInIt)
{
    EndingThreads threads;
    EndingThreads::Node inside;
    EndingThreads::Node outside;
    threads.add(inside);

    threads.remove(outside);

    EXPECT_FALSE(threads.isDoneWith(threads.lastNumber(), nullptr));
}

/// A task whose thread is joined from the opening of one gate to that of another.
class SlowToJoin
{
public:
    SlowToJoin(test::Gate isJoined, test::Gate mayEnd)
        : m_isJoined(std::move(isJoined))
        , m_mayEnd(std::move(mayEnd))
    {}

    /// What the task has thrown goes with the last that is left of it.
    std::future<void> task() const
    {
        const auto wait = [isJoined = m_isJoined, mayEnd = m_mayEnd](const int* thrown) {
            delete thrown;
            isJoined.open();
            mayEnd.wait("the test");
        };
        std::promise<void> promise;
        promise.set_exception(std::make_exception_ptr(std::shared_ptr<int>(new int(0), wait)));
        return promise.get_future();
    }

private:
    const test::Gate m_isJoined;
    const test::Gate m_mayEnd;
};

TEST(SearchThreadsTest, AreWaitedForAlsoWhileOthersJoinThem)
{
    const test::Gate isJoined;
    const test::Gate mayEnd;
    joinLater(SlowToJoin(isJoined, mayEnd).task());
    auto joining = std::async(std::launch::async, [] { joinAnnounced(); });
    isJoined.wait("the join");

    auto waiting = std::async(std::launch::async, [] { joinAnnounced(); });

    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    mayEnd.open();
}

// They exist no more, and nobody would ever tell it of their end.
TEST(SearchThreadsTest, OfTheParentAreNotWaitedForByAForkedChild)
{
    const test::Gate announced;
    const test::Gate mayEnd;
    std::thread announcing([=] {
        const SearchThread thread;
        announceEnd();
        announced.open();
        mayEnd.wait("the test");
    });
    joinLater(std::async(std::launch::async, [=] { mayEnd.wait("the test"); }));
    announced.wait("the thread's end");

    const pid_t child = fork();
    if (child == 0) {
        alarm(std::chrono::seconds(test::kDeadline / 4).count());
        joinAnnounced();
        _exit(0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);

    mayEnd.open();
    announcing.join();
    joinAnnounced();
}

} // namespace

} // namespace tavo::ldap::search_threads
