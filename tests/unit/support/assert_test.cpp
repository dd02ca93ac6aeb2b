#include "support/assertion_capture.h"
#include "support/log_capture.h"
#include <tavo_utils/assert.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <thread>

namespace tavo {
namespace {

using test::AssertionCapture;
using test::LogCapture;
using testing::ElementsAre;

TEST(Assert, IsLoggedAsAWarningByDefault)
{
    const LogCapture log;
    assertFailure("some/file", 30, "rc == 0", QStringLiteral("Unknown code 7"));
    EXPECT_THAT(log.texts(log::Level::warning),
        ElementsAre("ASSERTION FAILED: some/file:30 (rc == 0) Unknown code 7"));
}

TEST(Assert, LeavesAnAbsentMessageEmpty)
{
    const LogCapture log;
    assertFailure(SourcePosition{"some/file", 122}, "rc == 0");
    EXPECT_THAT(log.texts(), ElementsAre("ASSERTION FAILED: some/file:122 (rc == 0) "));
}

TEST(Assert, GoesToTheHandlerInsteadOfTheLog)
{
    const LogCapture log;
    const AssertionCapture assertions;
    assertFailure("a", 1, "false", QStringLiteral("first"));
    assertFailure({"b", 2}, "x > 0");
    EXPECT_THAT(assertions.failures(), ElementsAre(AssertionCapture::Failure{"a", 1, "false", "first"},
                                           AssertionCapture::Failure{"b", 2, "x > 0", ""}));
    EXPECT_TRUE(log.texts().empty());
}

TEST(Assert, GivesThePreviousHandlerBackAndRestoresTheDefault)
{
    int calls = 0;
    EXPECT_FALSE(setAssertionHandler([&](SourcePosition, const char*, const QString&) { ++calls; }));
    const AssertionHandler counting = setAssertionHandler({});
    ASSERT_TRUE(counting);
    counting({}, "", {});
    EXPECT_EQ(calls, 1);

    const LogCapture log;
    assertFailure("a", 1, "false");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(log.texts().size(), 1U);
}

TEST(Assert, LeavesErrnoAlone)
{
    setAssertionHandler([](SourcePosition, const char*, const QString&) { errno = EIO; });
    errno = ENOENT;
    assertFailure("a", 1, "false");
    EXPECT_EQ(errno, ENOENT);
    setAssertionHandler({});
}

TEST(Assert, ReturnsEvenWhenTheHandlerThrows)
{
    int calls = 0;
    setAssertionHandler([&](SourcePosition, const char*, const QString&) {
        ++calls;
        throw std::runtime_error("handler");
    });
    assertFailure("a", 1, "false");
    setAssertionHandler({});
    EXPECT_EQ(calls, 1);
}

TEST(Assert, LetsTheHandlerBeReplacedWhileOtherThreadsAssert)
{
    constexpr int perThread = 2000;
    std::atomic<int> calls{0};
    const auto counting = [&](SourcePosition, const char*, const QString&) { ++calls; };
    setAssertionHandler(counting);
    {
        const auto assertOften = [] {
            for (int i = 0; i < perThread; ++i)
                assertFailure("a", i, "false");
        };
        const std::jthread first(assertOften);
        const std::jthread second(assertOften);
        for (int i = 0; i < perThread; ++i)
            setAssertionHandler(counting);
    }
    setAssertionHandler({});
    EXPECT_EQ(calls, 2 * perThread);
}

struct AssertsAtExit
{
    ~AssertsAtExit() { assertFailure("some/file", 30, "false"); }
};

struct SaysWhenItGoes
{
    ~SaysWhenItGoes() { std::fputs("the handler is gone; ", stderr); }
};

void exitWithAStaticThatAsserts()
{
    static const AssertsAtExit last; // made before the handler is first used, so destroyed after it
    setAssertionHandler([owned = std::make_shared<SaysWhenItGoes>()](SourcePosition, const char*,
                            const QString&) { std::fputs("asserted at exit", stderr); });
    std::exit(0);
}

TEST(AssertDeathTest, WorksWhileStaticObjectsAreDestroyed)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exitWithAStaticThatAsserts(), testing::ExitedWithCode(0),
        testing::AllOf(testing::HasSubstr("asserted at exit"), testing::Not(testing::HasSubstr("gone"))));
}

} // namespace
} // namespace tavo
