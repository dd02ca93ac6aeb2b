#include <ldap/private/wire/connection.h>
#include <ldap/private/wire/time_limit.h>

#include <gtest/gtest.h>

#include <thread>

namespace tavo::ldap {
namespace {

using namespace std::chrono_literals;

std::shared_ptr<Connection> makeConnection() { return Connection::make({}, QStringLiteral("ldap://host")); }

TEST(TimeLimitTest, IsThatOfItsThreadAndConnectionWhileItLives)
{
    const auto connection = makeConnection();
    const auto other = makeConnection();
    EXPECT_EQ(TimeLimit::ofThisThread(*connection), nullptr);
    {
        TimeLimit limit(connection.get(), Limit::answer, 1h);
        EXPECT_EQ(TimeLimit::ofThisThread(*connection), &limit);
        EXPECT_EQ(TimeLimit::ofThisThread(*other), nullptr);
        std::thread([&] { EXPECT_EQ(TimeLimit::ofThisThread(*connection), nullptr); }).join();
        {
            const TimeLimit ofALog(other.get(), Limit::answer, 1h);
            EXPECT_EQ(TimeLimit::ofThisThread(*connection), nullptr);
        }
        EXPECT_EQ(TimeLimit::ofThisThread(*connection), &limit);
    }
    EXPECT_EQ(TimeLimit::ofThisThread(*connection), nullptr);
}

TEST(TimeLimitTest, BeginsWithTheFirstWriteOrRead)
{
    const auto connection = makeConnection();
    TimeLimit written(connection.get(), Limit::answer, 1h);
    EXPECT_FALSE(written.deadline());
    const auto before = TimeLimit::Clock::now();
    written.aboutToWrite();
    const auto deadline = written.deadline();
    ASSERT_TRUE(deadline);
    EXPECT_GE(*deadline, before + 1h);
    written.aboutToWrite();
    EXPECT_EQ(written.deadline(), deadline);

    TimeLimit read(connection.get(), Limit::answer, 1h);
    read.aboutToRead();
    EXPECT_TRUE(read.deadline());
}

// Between the two the thread waits for the lock of another one that waits for the server.
TEST(TimeLimitTest, LeavesOutTheTimeFromTheLastWriteToTheFirstReadOnly)
{
    const auto connection = makeConnection();
    TimeLimit limit(connection.get(), Limit::answer, 1h);
    limit.aboutToWrite();
    limit.hasWritten();
    const auto deadline = *limit.deadline();
    limit.aboutToRead();
    const auto putOff = *limit.deadline();
    EXPECT_GT(putOff, deadline);
    limit.hasWritten();
    limit.aboutToRead();
    EXPECT_EQ(limit.deadline(), putOff);
}

TEST(TimeLimitTest, OfASilenceBeginsAtOnce)
{
    const auto connection = makeConnection();
    const TimeLimit limit(connection.get(), Limit::pageSilence, 1h);
    ASSERT_TRUE(limit.deadline());
    EXPECT_LE(*limit.left(), 1h);
    EXPECT_GT(*limit.left(), 59min);
}

TEST(TimeLimitTest, HasNoEndWithoutADuration)
{
    const auto connection = makeConnection();
    TimeLimit limit(connection.get(), Limit::pageSilence, std::nullopt);
    limit.aboutToWrite();
    limit.aboutToRead();
    EXPECT_FALSE(limit.deadline());
    EXPECT_FALSE(limit.left());
}

TEST(TimeLimitTest, TakesTheLongestDurationThereIs)
{
    const auto connection = makeConnection();
    TimeLimit limit(connection.get(), Limit::answer, std::chrono::milliseconds::max());
    limit.aboutToRead();
    EXPECT_GT(*limit.left(), 24h * 19);
}

TEST(TimeLimitTest, HasNothingLeftOnceItHasPassed)
{
    const auto connection = makeConnection();
    TimeLimit limit(connection.get(), Limit::connect, 1h);
    limit.switchTo(Limit::connect, 1h, -1s);
    EXPECT_EQ(*limit.left(), 0ms);
}

TEST(TimeLimitTest, IsReplacedWhenTheHandshakeBegins)
{
    const auto connection = makeConnection();
    TimeLimit limit(connection.get(), Limit::answer, 1h);
    limit.aboutToWrite();
    limit.switchTo(Limit::connect, 2h, 90min);
    EXPECT_EQ(limit.limit(), Limit::connect);
    EXPECT_EQ(*limit.duration(), 2h);
    EXPECT_GT(*limit.left(), 1h);
    EXPECT_LE(*limit.left(), 90min);
    limit.switchTo(Limit::connect, std::nullopt, std::nullopt);
    limit.aboutToRead();
    EXPECT_FALSE(limit.left());
}

} // namespace
} // namespace tavo::ldap
