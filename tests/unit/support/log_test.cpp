#include "allocation_count.h"
#include "support/log_capture.h"
#include <tavo_utils/log.h>
#include <tavo_utils/scope_guard.h>

#include <gmock/gmock.h>

#include <QtCore/QLoggingCategory>
#include <QtCore/QtGlobal>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <latch>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace tavo::log {

// In a named namespace: its name is what is logged.
struct Animal
{
    Animal() { TAVO_LOG_INFO(tag(*this), u"born"); }
    virtual ~Animal() = default;
};
struct Dog : Animal
{};

namespace {

using test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using utils::MonotonicTime;

struct Scope
{};

std::string hexAddress(const void* object)
{
    std::ostringstream text;
    text << std::hex << reinterpret_cast<std::uintptr_t>(object);
    return text.str();
}

// Every test starts from, and leaves behind, the state of a fresh process.
class Log : public testing::Test
{
protected:
    Log() { reset(); }
    ~Log() override { reset(); }
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    static void reset()
    {
        setMaxLevel(Level::info);
        clearTagLevels();
        setReducerConfig({});
        setShowPasswords(false);
        setSink({});
        MonotonicTime::setSource(nullptr);
    }
};

void logAtEveryLevel()
{
    TAVO_LOG_WARNING(scopeTag<Scope>(), u"warning");
    TAVO_LOG_INFO(scopeTag<Scope>(), u"info");
    TAVO_LOG_DEBUG(scopeTag<Scope>(), u"debug");
    TAVO_LOG_VERBOSE(scopeTag<Scope>(), u"verbose");
}

TEST_F(Log, LevelsHaveTheirNumbers)
{
    EXPECT_EQ(static_cast<int>(Level::silent), 0);
    EXPECT_EQ(static_cast<int>(Level::warning), 3);
    EXPECT_EQ(static_cast<int>(Level::info), 4);
    EXPECT_EQ(static_cast<int>(Level::debug), 5);
    EXPECT_EQ(static_cast<int>(Level::verbose), 6);
}

// What a process has at its start, read before any test can have changed it.
struct AtTheStart
{
    Level maxLevel = log::maxLevel();
    bool admitsWarning = admits(Level::warning);
    bool admitsInfo = admits(Level::info);
    bool admitsDebug = admits(Level::debug);
    bool showsPasswords = showPasswords();
    ReducerConfig reducer = reducerConfig();
};
const AtTheStart atTheStart;

TEST_F(Log, AdmitsInfoAtTheStart)
{
    EXPECT_EQ(atTheStart.maxLevel, Level::info);
    EXPECT_TRUE(atTheStart.admitsWarning);
    EXPECT_TRUE(atTheStart.admitsInfo);
    EXPECT_FALSE(atTheStart.admitsDebug);
}

TEST_F(Log, WritesUpToTheMaximalLevel)
{
    LogCapture log;
    logAtEveryLevel();
    EXPECT_THAT(log.texts(), ElementsAre("warning", "info", "debug", "verbose"));
    EXPECT_THAT(log.texts(Level::debug), ElementsAre("debug"));

    log.clear();
    setMaxLevel(Level::warning);
    logAtEveryLevel();
    EXPECT_THAT(log.texts(), ElementsAre("warning"));

    log.clear();
    setMaxLevel(Level::silent);
    logAtEveryLevel();
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(Log, EvaluatesNothingThatIsNotAdmitted)
{
    const LogCapture log(Level::silent);
    int evaluations = 0;
    const auto counted = [&] { return ++evaluations; };
    const auto countedTag = [&] {
        ++evaluations;
        return scopeTag<Scope>();
    };
    TAVO_LOG_WARNING(countedTag(), u"%1", counted());
    TAVO_LOG_INFO(countedTag(), u"%1", counted());
    TAVO_LOG_DEBUG(countedTag(), u"%1", counted());
    TAVO_LOG_VERBOSE(countedTag(), u"%1", counted());
    EXPECT_EQ(evaluations, 0);
}

TEST_F(Log, EvaluatesNoArgumentsForATagThatIsNotAdmitted)
{
    const LogCapture log(Level::silent);
    setTagLevel(QStringLiteral("another"), Level::verbose);
    int evaluations = 0;
    const auto counted = [&] { return ++evaluations; };
    TAVO_LOG_WARNING(scopeTag<Scope>(), u"%1", counted());
    TAVO_LOG_DEBUG(scopeTag<Scope>(), u"%1", counted());
    EXPECT_EQ(evaluations, 0);
    setTagLevel(QStringLiteral("Scope"), Level::verbose);
    TAVO_LOG_DEBUG(scopeTag<Scope>(), u"%1", counted());
    EXPECT_EQ(evaluations, 1);
}

TEST_F(Log, FormatsTheMessage)
{
    const LogCapture log;
    TAVO_LOG_DEBUG(scopeTag<Scope>(), u"page %1 of [%2]", 3, QStringLiteral("dc=%1"));
    EXPECT_THAT(log.texts(), ElementsAre("page 3 of [dc=%1]"));
}

TEST_F(Log, TagNamesTheDynamicTypeAndTheAddress)
{
    const Dog dog;
    const Animal& animal = dog;
    const std::string expected = "tavo::log::Dog(0x" + hexAddress(&dog);
    EXPECT_EQ(tag(animal).toString().toStdString(), expected + ")");
    EXPECT_EQ(tag(animal, QStringLiteral("Rex")).toString().toStdString(), expected + ", Rex)");
}

TEST_F(Log, TagNamesTheBaseWhileThatIsBeingConstructed)
{
    const LogCapture log;
    const Dog dog;
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages().front().tag, "tavo::log::Animal(0x" + hexAddress(&dog) + ")");
    EXPECT_EQ(log.messages().front().thread, std::this_thread::get_id());
}

template <class T>
struct Outer
{
    struct Inner
    {};
    template <class U>
    struct Nested
    {};
};

TEST_F(Log, ScopeTagIsTheLastPartOfTheMarkersName)
{
    struct destroyLdap
    {};
    EXPECT_EQ(scopeTag<destroyLdap>().toString().toStdString(), "destroyLdap");
    EXPECT_EQ(scopeTag<Outer<std::string>::Inner>().toString().toStdString(), "Inner");
    EXPECT_EQ(scopeTag<Outer<int>::Nested<Scope>>().toString().toStdString(),
        "Nested<tavo::log::(anonymous namespace)::Scope>");
    EXPECT_EQ(scopeTag<int>().toString().toStdString(), "int");
}

TEST_F(Log, ATagsOwnLimitMayAdmitMoreThanTheOthers)
{
    LogCapture log(Level::warning);
    setTagLevel(QStringLiteral("Scope"), Level::debug);
    logAtEveryLevel();
    EXPECT_THAT(log.texts(), ElementsAre("warning", "info", "debug"));
    EXPECT_TRUE(admits(Level::debug));
    EXPECT_FALSE(admits(Level::verbose));
    EXPECT_FALSE(admits(Level::info, scopeTag<Animal>()));
}

TEST_F(Log, ATagsOwnLimitMayAdmitLessThanTheOthers)
{
    LogCapture log(Level::verbose);
    setTagLevel(QStringLiteral("Scope"), Level::info);
    logAtEveryLevel();
    EXPECT_THAT(log.texts(), ElementsAre("warning", "info"));
    EXPECT_TRUE(admits(Level::verbose, scopeTag<Animal>()));
}

TEST_F(Log, AnObjectsLimitGoesByItsFullTypeName)
{
    const LogCapture log(Level::silent);
    setTagLevel(QStringLiteral("tavo::log::Dog"), Level::info);
    const Dog dog; // its base logs as an Animal
    EXPECT_THAT(log.texts(), IsEmpty());
    TAVO_LOG_INFO(tag(static_cast<const Animal&>(dog)), u"barks");
    EXPECT_THAT(log.texts(), ElementsAre("barks"));
}

TEST_F(Log, ClearingTheTagsLimitsRestoresTheProcessWideOne)
{
    setTagLevel(QStringLiteral("Scope"), Level::verbose);
    setTagLevel(QStringLiteral("Animal"), Level::silent);
    clearTagLevels();
    EXPECT_FALSE(admits(Level::debug));
    EXPECT_FALSE(admits(Level::debug, scopeTag<Scope>()));
    EXPECT_TRUE(admits(Level::info, scopeTag<Animal>()));
}

TEST_F(Log, DecidesForATypeThatItKnowsWithoutAllocating)
{
    const Dog dog;
    const auto decide = [&] {
        return std::vector{admits(Level::debug, tag(static_cast<const Animal&>(dog))),
            admits(Level::debug, scopeTag<Dog>()), admits(Level::debug, scopeTag<Scope>())};
    };
    const auto allocations = [&] {
        const std::size_t before = test::allocationsOfThisThread();
        EXPECT_FALSE(admits(Level::debug, tag(static_cast<const Animal&>(dog))));
        EXPECT_TRUE(admits(Level::debug, scopeTag<Dog>()));
        EXPECT_FALSE(admits(Level::debug, scopeTag<Scope>()));
        return test::allocationsOfThisThread() - before;
    };
    setTagLevel(QStringLiteral("Dog"), Level::debug);
    EXPECT_THAT(decide(), ElementsAre(false, true, false));
    EXPECT_EQ(allocations(), 0U);
    setTagLevel(QStringLiteral("another"), Level::verbose);
    EXPECT_EQ(allocations(), 0U) << "names outlive a change of the limits";

    const std::size_t before = test::allocationsOfThisThread();
    static_cast<void>(tag(dog).name());
    EXPECT_GT(test::allocationsOfThisThread(), before) << "they are counted";
}

TEST_F(Log, TellsAnObjectFromAScopeOfTheSameTypeByTheirNames)
{
    const Dog dog;
    setTagLevel(QStringLiteral("another"), Level::verbose);
    EXPECT_FALSE(admits(Level::debug, scopeTag<Dog>()));
    EXPECT_FALSE(admits(Level::debug, tag(dog)));
    setTagLevel(QStringLiteral("Dog"), Level::debug);
    EXPECT_TRUE(admits(Level::debug, scopeTag<Dog>()));
    EXPECT_FALSE(admits(Level::debug, tag(dog)));
    clearTagLevels();
    setTagLevel(QStringLiteral("tavo::log::Dog"), Level::debug);
    EXPECT_FALSE(admits(Level::debug, scopeTag<Dog>()));
    EXPECT_TRUE(admits(Level::debug, tag(dog)));
}

TEST_F(Log, LimitsEveryScopeOfOneName)
{
    const auto first = [] {
        struct sameName
        {};
        return admits(Level::debug, scopeTag<sameName>());
    };
    const auto second = [] {
        struct sameName
        {};
        return admits(Level::debug, scopeTag<sameName>());
    };
    setTagLevel(QStringLiteral("sameName"), Level::debug);
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(first());
        EXPECT_TRUE(second());
    }
}

template <std::size_t number>
struct Numbered
{};

template <std::size_t... numbers>
std::vector<Tag> numberedTags(std::index_sequence<numbers...>)
{
    return {scopeTag<Numbered<numbers>>()...};
}

TEST_F(Log, DecidesRightlyForMoreTypesThanItRemembers)
{
    const std::vector<Tag> tags = numberedTags(std::make_index_sequence<300>());
    for (const Tag& own : tags)
        setTagLevel(own.name(), Level::debug);
    setTagLevel(QStringLiteral("another"), Level::verbose);
    for (int i = 0; i < 2; ++i) {
        for (const Tag& own : tags) {
            ASSERT_TRUE(admits(Level::debug, own)) << own.name().toStdString();
            ASSERT_FALSE(admits(Level::verbose, own)) << own.name().toStdString();
        }
    }
}

TEST_F(Log, DecidesWhileOtherThreadsDecideAndSetLimits)
{
    const std::vector<Tag> tags = numberedTags(std::make_index_sequence<100>());
    std::latch start(4);
    std::atomic<int> admitted{0};
    const auto decide = [&] {
        start.arrive_and_wait();
        for (const Tag& own : tags)
            admitted += admits(Level::info, own) ? 1 : 0;
    };
    {
        const std::jthread first(decide);
        const std::jthread second(decide);
        const std::jthread third(decide);
        start.arrive_and_wait();
        for (int i = 0; i < 100; ++i)
            setTagLevel(QString::number(i), Level::debug);
    }
    EXPECT_EQ(admitted, 300);
}

TEST_F(Log, LeavesErrnoAlone)
{
    setMaxLevel(Level::verbose);
    setSink([](Level, const QString&, const QString&) { errno = EIO; });
    const auto spoil = [] { return errno = EPIPE; };
    errno = ENOENT;
    TAVO_LOG_WARNING(scopeTag<Scope>(), u"%1", spoil());
    EXPECT_EQ(errno, ENOENT);
    TAVO_LOG_DEBUG(scopeTag<Scope>(), u"%1", spoil());
    EXPECT_EQ(errno, ENOENT);
    write(Level::info, scopeTag<Scope>(), QStringLiteral("direct"));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Log, NeverThrows)
{
    setMaxLevel(Level::verbose);
    int calls = 0;
    setSink([&](Level, const QString&, const QString&) {
        ++calls;
        throw std::runtime_error("sink");
    });
    const auto fail = []() -> int { throw std::runtime_error("argument"); };
    EXPECT_NO_THROW(TAVO_LOG_INFO(scopeTag<Scope>(), u"sink throws"));
    EXPECT_NO_THROW(TAVO_LOG_INFO(scopeTag<Scope>(), u"%1", fail()));
    EXPECT_NO_THROW(TAVO_LOG_DEBUG(scopeTag<Scope>(), u"%1", fail()));
    EXPECT_EQ(calls, 1);
}

TEST_F(Log, HidesPasswordsUnlessToldOtherwise)
{
    EXPECT_FALSE(atTheStart.showsPasswords);
    setShowPasswords(true);
    EXPECT_TRUE(showPasswords());
}

std::atomic<int> fakeMilliseconds{0};

MonotonicTime::TimePoint fakeTime()
{
    return MonotonicTime::TimePoint(std::chrono::milliseconds(fakeMilliseconds));
}

class LogReducer : public Log
{
protected:
    LogReducer()
    {
        fakeMilliseconds = 5000;
        MonotonicTime::setSource(&fakeTime);
    }
};

void warnAt(int millisecond)
{
    fakeMilliseconds = millisecond;
    TAVO_LOG_WARNING(scopeTag<Scope>(), u"at %1", millisecond);
}

TEST_F(LogReducer, StartsWithAHundredMessagesAMinute)
{
    EXPECT_EQ(atTheStart.reducer.limit, 100);
    EXPECT_EQ(atTheStart.reducer.period, std::chrono::seconds(60));
}

TEST_F(LogReducer, MarksTheMessageThatReachesTheLimitAndDemotesTheRest)
{
    const LogCapture log(Level::debug);
    setReducerConfig({std::chrono::milliseconds(10), 3});
    for (int i = 100; i < 105; ++i)
        warnAt(i);
    EXPECT_THAT(
        log.texts(Level::warning), ElementsAre("at 100", "at 101", "TOO MANY SIMILAR MESSAGES: at 102"));
    EXPECT_THAT(log.texts(Level::debug), ElementsAre("at 103", "at 104"));
}

TEST_F(LogReducer, DropsTheRestWhenDebugIsNotAdmitted)
{
    const LogCapture log(Level::info);
    setReducerConfig({std::chrono::milliseconds(10), 1});
    warnAt(200);
    warnAt(201);
    EXPECT_THAT(log.texts(), ElementsAre("TOO MANY SIMILAR MESSAGES: at 200"));
}

TEST_F(LogReducer, StartsAfreshInTheNextPeriod)
{
    const LogCapture log(Level::info);
    setReducerConfig({std::chrono::milliseconds(10), 2});
    for (const int time : {300, 301, 302, 309, 310, 315, 319, 320})
        warnAt(time);
    EXPECT_THAT(log.texts(), ElementsAre("at 300", "TOO MANY SIMILAR MESSAGES: at 301", "at 310",
                                 "TOO MANY SIMILAR MESSAGES: at 315", "at 320"));
}

TEST_F(LogReducer, CountsEveryCallSiteForItself)
{
    const LogCapture log(Level::info);
    setReducerConfig({std::chrono::milliseconds(10), 2});
    fakeMilliseconds = 400;
    TAVO_LOG_INFO(scopeTag<Scope>(), u"one");
    TAVO_LOG_INFO(scopeTag<Scope>(), u"two");
    TAVO_LOG_WARNING(scopeTag<Scope>(), u"three");
    EXPECT_THAT(log.texts(), ElementsAre("one", "two", "three"));
}

TEST_F(LogReducer, DoesNotCountWhatIsNotAdmitted)
{
    LogCapture log(Level::silent);
    setReducerConfig({std::chrono::milliseconds(10), 2});
    const auto inform = [] { TAVO_LOG_INFO(scopeTag<Scope>(), u"hello"); };
    inform();
    inform();
    setTagLevel(QStringLiteral("another"), Level::info);
    inform();
    setMaxLevel(Level::info);
    inform();
    EXPECT_THAT(log.texts(), ElementsAre("hello"));
}

TEST_F(LogReducer, LeavesDebugAndVerboseMessagesAlone)
{
    const LogCapture log;
    setReducerConfig({std::chrono::milliseconds(10), 1});
    for (int i = 0; i < 3; ++i) {
        TAVO_LOG_DEBUG(scopeTag<Scope>(), u"debug");
        TAVO_LOG_VERBOSE(scopeTag<Scope>(), u"verbose");
    }
    EXPECT_EQ(log.texts(Level::debug).size(), 3U);
    EXPECT_EQ(log.texts(Level::verbose).size(), 3U);
}

TEST_F(LogReducer, IsOffBelowALimitOfOne)
{
    const LogCapture log(Level::info);
    setReducerConfig({std::chrono::milliseconds(10), 0});
    for (int i = 0; i < 300; ++i)
        TAVO_LOG_INFO(scopeTag<Scope>(), u"hello");
    EXPECT_THAT(log.texts(), testing::Each("hello"));
    EXPECT_EQ(log.texts().size(), 300U);
}

TEST_F(LogReducer, MarksOneMessageWhenThreadsShareACallSite)
{
    const LogCapture log(Level::debug);
    setReducerConfig({std::chrono::milliseconds(10), 50});
    std::latch start(4);
    const auto informOften = [&] {
        start.arrive_and_wait();
        for (int i = 0; i < 500; ++i)
            TAVO_LOG_INFO(scopeTag<Scope>(), u"hello");
    };
    const auto runFourTimes = [&] {
        const std::jthread first(informOften);
        const std::jthread second(informOften);
        const std::jthread third(informOften);
        informOften();
    };
    runFourTimes();
    EXPECT_EQ(log.texts(Level::info).size(), 50U);
    EXPECT_EQ(log.texts(Level::debug).size(), 1950U);
    EXPECT_THAT(log.texts(Level::info), testing::Contains("TOO MANY SIMILAR MESSAGES: hello").Times(1));
}

using LogSink = Log;

TEST_F(LogSink, IsGivenBackWhenReplaced)
{
    int calls = 0;
    EXPECT_FALSE(setSink([&](Level, const QString&, const QString&) { ++calls; }));
    const Sink counting = setSink({});
    ASSERT_TRUE(counting);
    counting(Level::info, {}, {});
    EXPECT_EQ(calls, 1);
}

TEST_F(LogSink, RunsInNoOtherThreadOnceItIsReplaced)
{
    std::promise<void> entered;
    std::promise<void> mayLeave;
    std::atomic<bool> left = false;
    setSink([&](Level, const QString&, const QString&) {
        entered.set_value();
        mayLeave.get_future().wait();
        left = true;
    });
    const std::jthread logging([] { TAVO_LOG_INFO(scopeTag<Scope>(), u"slow"); });
    entered.get_future().wait();

    std::promise<void> reached;
    std::atomic<bool> isReached = false;
    std::future<bool> sawLeft = std::async(std::launch::async, [&] {
        setSink([&](Level, const QString&, const QString&) {
            if (!isReached.exchange(true))
                reached.set_value();
        });
        return left.load();
    });
    while (!isReached) // the new sink is in force while setSink() still waits for the old one
        write(Level::info, scopeTag<Scope>(), QStringLiteral("other"));
    mayLeave.set_value();
    EXPECT_TRUE(sawLeft.get());
    setSink({});
}

TEST_F(LogSink, MayBeReplacedWhileThreadsLog)
{
    std::atomic<int> late{0};
    std::atomic<int> written{0};
    std::atomic<bool> stop{false};
    const auto logUntilStopped = [&] {
        while (!stop)
            write(Level::info, scopeTag<Scope>(), QStringLiteral("x"));
    };
    setSink([&](Level, const QString&, const QString&) { ++written; });
    {
        const std::jthread first(logUntilStopped);
        const std::jthread second(logUntilStopped);
        for (int i = 0; i < 300; ++i) {
            auto isCurrent = std::make_unique<std::atomic<bool>>(true);
            setSink([&late, &written, current = isCurrent.get()](Level, const QString&, const QString&) {
                late += *current ? 0 : 1;
                ++written;
            });
            setSink([&](Level, const QString&, const QString&) { ++written; });
            *isCurrent = false;
        }
        stop = true;
    }
    setSink({});
    EXPECT_EQ(late, 0);
}

// What a sink refers to may be destroyed by then, and its captures with it.
TEST_F(LogSink, BelongsToNoOtherThreadOnceItIsReplaced)
{
    std::atomic<bool> stop{false};
    const auto logUntilStopped = [&] {
        while (!stop)
            write(Level::info, scopeTag<Scope>(), QStringLiteral("x"));
    };
    int late = 0;
    {
        const std::jthread first(logUntilStopped);
        const std::jthread second(logUntilStopped);
        const std::jthread third(logUntilStopped);
        const utils::ScopeGuard stopThem([&] { stop = true; });
        for (int i = 0; i < 20'000 && late == 0; ++i) {
            auto captured = std::make_shared<int>(i);
            const std::weak_ptr<int> left = captured;
            setSink([captured = std::move(captured)](Level, const QString&, const QString&) {});
            setSink({});
            late += left.expired() ? 0 : 1;
        }
    }
    EXPECT_EQ(late, 0);
}

// What Qt's message handler got.
struct QtMessage
{
    QtMsgType type;
    std::string category;
    std::string text;
};
std::vector<QtMessage> qtMessages;

void takeQtMessage(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    qtMessages.push_back({type, context.category, text.toStdString()});
}

class LogToQt : public Log
{
protected:
    LogToQt()
        : m_previous(qInstallMessageHandler(&takeQtMessage))
    {
        qtMessages.clear();
    }
    ~LogToQt() override { qInstallMessageHandler(m_previous); }
    LogToQt(const LogToQt&) = delete;
    LogToQt& operator=(const LogToQt&) = delete;

    static std::vector<std::string> texts()
    {
        std::vector<std::string> all;
        for (const QtMessage& message : qtMessages)
            all.push_back(message.text);
        return all;
    }

private:
    QtMessageHandler m_previous;
};

TEST_F(LogToQt, IsTheDefault)
{
    setMaxLevel(Level::verbose);
    logAtEveryLevel();
    ASSERT_THAT(texts(), ElementsAre("Scope: warning", "Scope: info", "Scope: debug", "Scope: verbose"));
    EXPECT_EQ(qtMessages[0].type, QtWarningMsg);
    EXPECT_EQ(qtMessages[1].type, QtInfoMsg);
    EXPECT_EQ(qtMessages[2].type, QtDebugMsg);
    EXPECT_EQ(qtMessages[3].type, QtDebugMsg);
    for (const QtMessage& message : qtMessages)
        EXPECT_EQ(message.category, "tavo.ldap");
}

TEST_F(LogToQt, IsNotFilteredASecondTime)
{
    QLoggingCategory::setFilterRules(QStringLiteral("*=false"));
    setMaxLevel(Level::debug);
    TAVO_LOG_DEBUG(scopeTag<Scope>(), u"admitted");
    QLoggingCategory::setFilterRules({});
    EXPECT_THAT(texts(), ElementsAre("Scope: admitted"));
}

TEST_F(LogToQt, KeepsTextsWithFormatAndQuoteCharactersAsTheyAre)
{
    TAVO_LOG_INFO(scopeTag<Scope>(), u"%1", "100%s \"quoted\" ü ");
    EXPECT_THAT(texts(), ElementsAre("Scope: 100%s \"quoted\" ü "));
}

TEST_F(LogToQt, TakesWhatASinkItselfLogs)
{
    int calls = 0;
    setSink([&](Level, const QString&, const QString&) {
        ++calls;
        TAVO_LOG_INFO(scopeTag<Scope>(), u"from the sink");
    });
    TAVO_LOG_INFO(scopeTag<Scope>(), u"first");
    TAVO_LOG_INFO(scopeTag<Scope>(), u"second");
    EXPECT_EQ(calls, 2);
    EXPECT_THAT(texts(), ElementsAre("Scope: from the sink", "Scope: from the sink"));
}

TEST_F(LogToQt, TakesMessagesAgainWhenASinkPutsItBackByItself)
{
    int calls = 0;
    setSink([&](Level, const QString&, const QString&) {
        ++calls;
        setSink({});
    });
    TAVO_LOG_INFO(scopeTag<Scope>(), u"to the sink");
    TAVO_LOG_INFO(scopeTag<Scope>(), u"to Qt");
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(texts(), ElementsAre("Scope: to Qt"));
}

int handlerCalls = 0;

TEST_F(LogToQt, DoesNotCallQtsHandlerForWhatThatHandlerLogs)
{
    handlerCalls = 0;
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {
        ++handlerCalls;
        TAVO_LOG_INFO(scopeTag<Scope>(), u"from the handler");
    });
    setSink(
        [](Level, const QString&, const QString&) { TAVO_LOG_INFO(scopeTag<Scope>(), u"from the sink"); });
    testing::internal::CaptureStderr();
    TAVO_LOG_INFO(scopeTag<Scope>(), u"first");
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_EQ(handlerCalls, 1);
    EXPECT_THAT(written, testing::HasSubstr("from the handler"));
}

struct LogsAtExit
{
    ~LogsAtExit() { TAVO_LOG_WARNING(scopeTag<Scope>(), u"at exit"); }
};

void exitWithAStaticThatLogs()
{
    static const LogsAtExit last; // made before the logger is first used, so destroyed after anything of its
    setSink([](Level, const QString&, const QString& text) { std::fputs(qUtf8Printable(text), stderr); });
    std::exit(0);
}

TEST(LogDeathTest, WorksWhileStaticObjectsAreDestroyed)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exitWithAStaticThatLogs(), testing::ExitedWithCode(0), "at exit");
}

} // namespace
} // namespace tavo::log
