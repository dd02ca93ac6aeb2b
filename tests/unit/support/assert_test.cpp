#include "support/assertion_capture.h"
#include "support/log_capture.h"
#include <tavo_utils/assert.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

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

// Limits messages to few per call site while it lives, in a period that outlasts every test.
class FewMessages
{
public:
    explicit FewMessages(int limit) { log::setReducerConfig({std::chrono::hours(1), limit}); }
    ~FewMessages() { log::setReducerConfig({}); }
    FewMessages(const FewMessages&) = delete;
    FewMessages& operator=(const FewMessages&) = delete;
};

TEST(Assert, CountsEveryPositionForItself)
{
    const FewMessages few(2);
    const LogCapture log(log::Level::warning);
    const std::string sameFile = "counted"; // elsewhere in memory
    for (int i = 0; i < 4; ++i) {
        assertFailure("counted", 1, "a");
        assertFailure(sameFile.c_str(), 1, "a");
        assertFailure("counted", 2, "b");
        assertFailure("other", 1, "c");
    }
    EXPECT_THAT(log.texts(),
        ElementsAre("ASSERTION FAILED: counted:1 (a) ",
            "TOO MANY SIMILAR MESSAGES: ASSERTION FAILED: counted:1 (a) ", "ASSERTION FAILED: counted:2 (b) ",
            "ASSERTION FAILED: other:1 (c) ", "TOO MANY SIMILAR MESSAGES: ASSERTION FAILED: counted:2 (b) ",
            "TOO MANY SIMILAR MESSAGES: ASSERTION FAILED: other:1 (c) "));
}

TEST(Assert, CountsEveryPositionOnceWhenManyThreadsAssert)
{
    constexpr int limit = 20;
    constexpr int positions = 40;
    const FewMessages few(limit);
    const LogCapture log(log::Level::warning);
    std::latch start(4);
    const auto assertOften = [&] {
        start.arrive_and_wait();
        for (int i = 0; i < limit * positions; ++i)
            assertFailure("threads", i % positions, "false");
    };
    const auto runFourTimes = [&] {
        const std::jthread first(assertOften);
        const std::jthread second(assertOften);
        const std::jthread third(assertOften);
        assertOften();
    };
    runFourTimes();
    const std::vector<std::string> texts = log.texts();
    EXPECT_EQ(texts.size(), static_cast<std::size_t>(limit * positions));
    for (int line = 0; line < positions; ++line) {
        const std::string marked =
            "TOO MANY SIMILAR MESSAGES: ASSERTION FAILED: threads:" + std::to_string(line) + " (false) ";
        EXPECT_THAT(texts, testing::Contains(marked).Times(1));
    }
}

void assertAtTooManyPositions()
{
    log::setReducerConfig({std::chrono::hours(1), 2});
    log::setSink([](log::Level, const QString&, const QString& text) {
        std::fprintf(stderr, "[%s]", qUtf8Printable(text));
    });
    log::setMaxLevel(log::Level::silent);
    for (int line = 1; line <= 200; ++line)
        assertFailure("unwritten", line, "false");
    log::setMaxLevel(log::Level::warning);
    for (int line = 1; line <= 128; ++line)
        assertFailure("invented", line, "false");
    std::fputs("full:", stderr);
    for (int line = 129; line <= 140; ++line)
        assertFailure("invented", line, "false");
    std::fputs("known:", stderr);
    assertFailure("invented", 128, "false");
    std::exit(0);
}

TEST(AssertDeathTest, LetsPositionsBeyondTheTableShareOneCounter)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(assertAtTooManyPositions(), testing::ExitedWithCode(0),
        testing::EndsWith(
            "[ASSERTION FAILED: invented:128 (false) ]full:[ASSERTION FAILED: invented:129 (false) ]"
            "[TOO MANY SIMILAR MESSAGES: ASSERTION FAILED: invented:130 (false) ]"
            "known:[TOO MANY SIMILAR MESSAGES: ASSERTION FAILED: invented:128 (false) ]"));
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

void exitWithAStaticThatAssertsToTheLog()
{
    static const AssertsAtExit last; // made before anything is logged
    log::setSink(
        [](log::Level, const QString&, const QString& text) { std::fputs(qUtf8Printable(text), stderr); });
    std::exit(0);
}

TEST(AssertDeathTest, LogsWhileStaticObjectsAreDestroyed)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exitWithAStaticThatAssertsToTheLog(), testing::ExitedWithCode(0),
        testing::HasSubstr("ASSERTION FAILED: some/file:30 (false) "));
}

} // namespace
} // namespace tavo
