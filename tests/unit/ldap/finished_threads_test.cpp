#include <ldap/private/finished_threads.h>

#include <cstdint>

#include <gtest/gtest.h>

namespace tavo::ldap::finished_threads {

namespace {

TEST(FinishedThreadsTest, areWaitedForInTheOrderInWhichTheyAnnouncedTheirEnd)
{
    Queue queue;
    EXPECT_TRUE(queue.isDoneWith(queue.lastNumber(), nullptr));
    Queue::Place first;
    Queue::Place second;
    queue.add(first);
    const std::uint64_t beforeSecond = queue.lastNumber();
    queue.add(second);
    queue.add(first);
    const std::uint64_t both = queue.lastNumber();

    EXPECT_FALSE(queue.isDoneWith(beforeSecond, nullptr));
    queue.remove(first);
    EXPECT_TRUE(queue.isDoneWith(beforeSecond, nullptr));
    EXPECT_FALSE(queue.isDoneWith(both, nullptr));
    queue.remove(second);
    EXPECT_TRUE(queue.isDoneWith(both, nullptr));
}

// Or a process in which there is always one that is ending would never be done.
TEST(FinishedThreadsTest, areNotWaitedForWhenTheyAnnounceTheirEndLater)
{
    Queue queue;
    const std::uint64_t nobody = queue.lastNumber();
    Queue::Place later;
    queue.add(later);

    EXPECT_TRUE(queue.isDoneWith(nobody, nullptr));
}

TEST(FinishedThreadsTest, doNotWaitForThemselves)
{
    Queue queue;
    Queue::Place self;
    Queue::Place other;
    queue.add(self);
    EXPECT_TRUE(queue.isDoneWith(queue.lastNumber(), &self));
    queue.add(other);

    EXPECT_FALSE(queue.isDoneWith(queue.lastNumber(), &self));
    EXPECT_FALSE(queue.isDoneWith(queue.lastNumber(), &other));
    queue.remove(other);
    EXPECT_TRUE(queue.isDoneWith(queue.lastNumber(), &self));
}

TEST(FinishedThreadsTest, leaveTheQueueOnlyIfTheyWereInIt)
{
    Queue queue;
    Queue::Place inside;
    Queue::Place outside;
    queue.add(inside);

    queue.remove(outside);

    EXPECT_FALSE(queue.isDoneWith(queue.lastNumber(), nullptr));
}

} // namespace

} // namespace tavo::ldap::finished_threads
