#include "scarce_memory.h"
#include "search_calls_test.h"
#include "support/assertion_capture.h"
#include "support/no_threads.h"
#include "support/threads_end_here.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

namespace tavo::test {

namespace {

using ldap::BaseError;
using ldap::Result;
using ldap::SearchContext;
using namespace std::string_view_literals;

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class PagedSearchCalls : public SearchCalls
{
protected:
    /// Two full pages and one that is not.
    void serveThreePages()
    {
        server.expectSearch().answer(entries(1, 2), done().page("one"));
        server.expectSearch().answer(entries(3, 2), done().page("two"));
        server.expectSearch().answer(entries(5, 1), done().page(""));
    }

    /// Has the first `count` polls come back without a message.
    void pollInVain(int count)
    {
        recorder.replace(
            ldap_result, [this, count](LDAP* ld, int id, int all, timeval* timeout, LDAPMessage** chain) {
                if (++m_polls <= count)
                    return 0;
                return CallRecorder::real(ldap_result)(ld, id, all, timeout, chain);
            });
    }

    /// Has the result come with another return value.
    void returnInsteadOfTheType(int value)
    {
        recorder.replace(ldap_result, [=](LDAP* ld, int id, int all, timeval* timeout, LDAPMessage** chain) {
            CallRecorder::real(ldap_result)(ld, id, all, timeout, chain);
            errno = EXDEV;
            return value;
        });
    }

    std::vector<RecordedCall::Time> sleeps() const
    {
        std::vector<RecordedCall::Time> times;
        for (const auto& call : recorder.calls("nanosleep"))
            times.push_back(call.time("req"));
        return times;
    }

    /// A search that ends with this result and nothing else.
    void expectOnly(Result result)
    {
        const auto calls = fetch();
        EXPECT_THAT(resultsOf(calls), ElementsAre(result));
        EXPECT_THAT(calls.front().entries, IsEmpty());
    }

private:
    std::atomic<int> m_polls = 0;
};

constexpr RecordedCall::Time kPollInterval{0, 100'000'000};

TEST_F(PagedSearchCalls, AreAwaitedByTheSessionsEndEvenIfTheFinalCallThrows)
{
    for (const bool throws : {false, true}) {
        const Gate isStarted;
        const Gate ending;
        const Gate mayEnd;
        server.expectSearch().answer(waitFor(isStarted), done());
        auto own =
            std::make_unique<ldap::Session>(utils::Url(QString::fromStdString(server.url())), false, false);
        recorder.replace(ldap_destroy, [=, isFirst = std::make_shared<std::atomic<bool>>(true)](LDAP* ld) {
            if (isFirst->exchange(false)) {
                ending.open();
                mayEnd.wait("the test");
            }
            return CallRecorder::real(ldap_destroy)(ld);
        });
        own->asyncSearch(
            params(),
            [=](Result, const auto&) {
                if (throws)
                    throw std::runtime_error("no disk");
            },
            2);
        isStarted.open();
        ending.wait("the end of the search's thread");

        auto ended = std::async(std::launch::async, [&] { own.reset(); });

        EXPECT_EQ(ended.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
        mayEnd.open();
        ended.get();
    }
}

/// Counts the threads that have come to their end.
class CountsThreadEnds
{
public:
    explicit CountsThreadEnds(std::atomic<int>& count)
        : m_count(count)
    {}
    ~CountsThreadEnds() { ++m_count; }
    CountsThreadEnds(const CountsThreadEnds&) = delete;
    CountsThreadEnds& operator=(const CountsThreadEnds&) = delete;

private:
    std::atomic<int>& m_count;
};

// Whoever is told of the end destroys the session and may leave `main`: the thread must be joined by then.
TEST_F(PagedSearchCalls, HaveEndedTheirThreadWhenTheirSessionIsGone)
{
    std::atomic<int> ends = 0;
    for (int round = 1; round <= 500; ++round) {
        server.expectSearch().answer(entries(1, 1), done());
        auto own =
            std::make_unique<ldap::Session>(utils::Url(QString::fromStdString(server.url())), false, false);
        std::promise<void> finished;
        auto searchParams = params();
        if (round % 2 == 0)
            searchParams.report = std::make_shared<ldap::SearchReport>();
        own->asyncSearch(
            std::move(searchParams),
            [&](Result, const auto&) {
                thread_local const CountsThreadEnds onThisThread(ends);
                finished.set_value();
            },
            2);
        finished.get_future().get();

        own.reset();

        ASSERT_EQ(ends, round);
    }
}

/// A session that lives as long as its thread, as a host may keep one for each.
class SessionOfThread
{
public:
    SessionOfThread(const ScriptedServer& server, Gate ending, Gate mayEnd, Gate ended)
        : m_ending(std::move(ending))
        , m_mayEnd(std::move(mayEnd))
        , m_ended(std::move(ended))
        , m_session(
              std::make_unique<ldap::Session>(utils::Url(QString::fromStdString(server.url())), false, false))
    {}
    ~SessionOfThread()
    {
        m_ending.open();
        m_mayEnd.wait("the test");
        m_session.reset();
        m_ended.open();
    }
    SessionOfThread(const SessionOfThread&) = delete;
    SessionOfThread& operator=(const SessionOfThread&) = delete;

private:
    const Gate m_ending;
    const Gate m_mayEnd;
    const Gate m_ended;
    std::unique_ptr<ldap::Session> m_session;
};

// Such a thread has been handed over to others, who join it; it must neither do so itself nor wait for them.
TEST_F(PagedSearchCalls, MayLeaveASessionToTheEndOfTheirThread)
{
    for (const bool isBeingJoined : {false, true}) {
        SCOPED_TRACE(isBeingJoined);
        const Gate isStarted;
        const Gate ending;
        const Gate mayEnd;
        const Gate ended;
        server.expectSearch().answer(waitFor(isStarted), done());
        session->asyncSearch(
            params(),
            [&](Result, const auto&) {
                thread_local const SessionOfThread onThisThread(server, ending, mayEnd, ended);
            },
            2);
        isStarted.open();
        ending.wait("the end of the search's thread");
        if (isBeingJoined) {
            const Gate isNextStarted;
            const Gate joins;
            beforeEach(recorder, ldap_destroy, [=] { joins.open(); });
            server.expectSearch().answer(waitFor(isNextStarted), done());
            session->asyncSearch(
                params(), [](Result, const auto&) {}, 2);
            isNextStarted.open();
            joins.wait("the end of the next search's thread");
        }

        mayEnd.open();

        ended.wait("the end of the session");
    }
}

TEST_F(PagedSearchCalls, MayFreeAReportThatOwnsASessionWithAContextOfAnyHandle)
{
    const Gate isLast;
    const Gate freed;
    auto owned =
        std::make_shared<ldap::Session>(utils::Url(QString::fromStdString(server.url())), false, false);
    auto searchParams = params();
    searchParams.report = std::shared_ptr<ldap::SearchReport>(
        new ldap::SearchReport, [freed, owned = std::move(owned)](const ldap::SearchReport* report) mutable {
            delete report;
            owned.reset();
            freed.open();
        });
    LDAP* ld = nullptr;
    ASSERT_EQ(ldap_initialize(&ld, server.url().c_str()), LDAP_SUCCESS);
    const int version = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    auto context = std::make_shared<SearchContext>(
        std::unique_ptr<LDAP, void (*)(LDAP*)>(ld, &ldap::Session::destroyLdap), std::move(searchParams),
        std::chrono::seconds(30));
    server.expectSearch().answer(done());
    context->asyncSearch([isLast](Result, const auto&) { isLast.wait("the other owner"); }, 2);
    context.reset();

    isLast.open();

    freed.wait("the report's end");
}

/// Holds up, after an exception, the thread of the first search that looks for itself a second time among
/// those of its session. There is one at a time.
class SecondLook
{
public:
    SecondLook()
    {
        s_looks = 0;
        s_current = this;
        setLockObserver(&observe);
    }
    ~SecondLook()
    {
        setLockObserver(nullptr);
        mayLook.open();
    }
    SecondLook(const SecondLook&) = delete;
    SecondLook& operator=(const SecondLook&) = delete;

    const Gate isLooking;
    const Gate mayLook;

private:
    static void observe(const Mutex&, SourcePosition position, LockEvent event)
    {
        const bool isLook = position.file == "ldap/session"sv && position.line == 153;
        if (isLook && event == LockEvent::locked && ++s_looks == 2) {
            const Gate mayLook = s_current->mayLook;
            s_current->isLooking.open();
            mayLook.wait("the test");
        }
    }

    static inline std::atomic<int> s_looks = 0;
    static inline SecondLook* s_current = nullptr;
};

// Whoever waits for the thread may be an intermediate call, made under the lock that the thread needs.
TEST_F(PagedSearchCalls, AreNotAwaitedBeforeTheyAreDoneWithTheirSessionsLock)
{
    recorder.replace(ldap_create_page_control,
        [](LDAP*, ber_int_t, berval*, int, LDAPControl**) -> int { throw std::runtime_error("no disk"); });
    const SecondLook secondLook;
    EXPECT_EQ(std::get<Result>(session->search(params(), 2)), Result::connectError);
    secondLook.isLooking.wait("the search's thread");
    auto other =
        std::make_unique<ldap::Session>(utils::Url(QString::fromStdString(server.url())), false, false);

    auto ended = std::async(std::launch::async, [&] { other.reset(); });

    EXPECT_EQ(ended.wait_for(kDeadline / 4), std::future_status::ready);
    secondLook.mayLook.open();
}

/// A search whose thread writes this line when its session has become idle.
struct LateLine
{
    std::string text;
    std::function<void(Result)> handler = [](Result) {};
};

/// A lock of the host that its log takes for one line.
class LockedLine
{
public:
    explicit LockedLine(const std::string& text)
        : m_held(m_lock)
        , m_former(log::setSink(
              [this, text = QString::fromStdString(text)](log::Level, const QString&, const QString& line) {
                  if (line.contains(text)) {
                      m_isDue.open();
                      const std::lock_guard lock(m_lock);
                  }
              }))
    {}
    ~LockedLine()
    {
        m_held.unlock();
        // Waits for the line.
        log::setSink(std::move(m_former));
    }
    LockedLine(const LockedLine&) = delete;
    LockedLine& operator=(const LockedLine&) = delete;

    void waitUntilItIsDue() const { m_isDue.wait("the line"); }

private:
    std::mutex m_lock;
    std::unique_lock<std::mutex> m_held;
    Gate m_isDue;
    log::Sink m_former;
};

// The host holds a lock that its log takes, so whoever waits for the line waits for ever.
TEST_F(PagedSearchCalls, AreNotAwaitedByTheEndOfASessionWhileTheyLog)
{
    std::promise<SearchContext*> started;
    const auto stopInCall = [&, own = started.get_future().share()](Result result) {
        if (result == Result::moreResults) {
            own.get()->stopAsyncSearch();
            throw BaseError(LDAP_SUCCESS, "no disk"_s, 0);
        }
    };
    const std::vector<LateLine> lines{
        {"was lost in its handler: no disk", [](Result) { throw BaseError(LDAP_OTHER, "no disk"_s, 0); }},
        {"was ended by an exception: no disk", [](Result) { throw std::runtime_error("no disk"); }},
        {"Error destroying ldap: "}, {"an error without a code", stopInCall}};
    for (const auto& late : lines) {
        SCOPED_TRACE(late.text);
        const ThreadsEndHere searchThread;
        const LockedLine line(late.text);
        const Gate isStarted;
        server.expectSearch().answer(
            waitFor(isStarted), entries(1, 2), late.text.starts_with("an") ? done().page("more") : done());
        auto own =
            std::make_unique<ldap::Session>(utils::Url(QString::fromStdString(server.url())), false, false);
        recorder.replace(ldap_destroy, [=, isFirst = std::make_shared<std::atomic<bool>>(true)](LDAP* ld) {
            const int rc = CallRecorder::real(ldap_destroy)(ld);
            return isFirst->exchange(false) ? LDAP_OTHER : rc;
        });
        SearchContext* const context = own->asyncSearch(
            params(), [handler = late.handler](Result result, const auto&) { handler(result); }, 2);
        if (late.text.starts_with("an"))
            started.set_value(context);
        isStarted.open();
        line.waitUntilItIsDue();

        own.reset();
        std::make_unique<ldap::Session>(utils::Url(QString::fromStdString(server.url())), false, false)
            .reset();
    }
}

TEST_F(PagedSearchCalls, AskReceiveReadAndFreePageByPageOnOneHandleAndThread)
{
    serveThreePages();

    EXPECT_THAT(resultsOf(fetch()), ElementsAre(Result::moreResults, Result::moreResults, Result::ok));
    recorder.waitForReturns("ldap_destroy", 1);

    EXPECT_THAT(namesAmong(recorder, {"ldap_create_page_control", "ldap_search_ext", "ldap_control_free",
                                         "ldap_result", "ldap_get_dn", "ldap_parse_pageresponse_control",
                                         "ldap_controls_free", "ldap_msgfree", "ldap_destroy"}),
        ElementsAre("ldap_create_page_control", "ldap_search_ext", "ldap_control_free", "ldap_result",
            "ldap_get_dn", "ldap_get_dn", "ldap_parse_pageresponse_control", "ldap_controls_free",
            "ldap_msgfree", "ldap_create_page_control", "ldap_search_ext", "ldap_control_free", "ldap_result",
            "ldap_get_dn", "ldap_get_dn", "ldap_parse_pageresponse_control", "ldap_controls_free",
            "ldap_msgfree", "ldap_create_page_control", "ldap_search_ext", "ldap_control_free", "ldap_result",
            "ldap_get_dn", "ldap_parse_pageresponse_control", "ldap_controls_free", "ldap_msgfree",
            "ldap_destroy"));
    const auto worker = recorder.calls("ldap_search_ext").front().thread;
    EXPECT_NE(worker, std::this_thread::get_id());
    for (const std::string function : {"ldap_search_ext", "ldap_result", "ldap_get_dn"}) {
        for (const auto& call : recorder.calls(function)) {
            EXPECT_EQ(call.handle(), 2);
            EXPECT_EQ(call.thread, worker);
        }
    }
}

TEST_F(PagedSearchCalls, SendEveryArgumentWithOneCriticalControl)
{
    serveThreePages();

    fetch();

    const auto requests = recorder.calls("ldap_search_ext");
    ASSERT_THAT(requests, SizeIs(3));
    const std::vector<Bytes> cookies{"", "one", "two"};
    for (std::size_t page = 0; page < requests.size(); ++page) {
        const auto& request = requests[page];
        EXPECT_EQ(request.text("base"), "dc=x");
        EXPECT_EQ(request.number("scope"), LDAP_SCOPE_ONELEVEL);
        EXPECT_EQ(request.text("filter"), "(cn=*)");
        EXPECT_THAT(request.texts("attrs"), ElementsAre("cn", "mail"));
        EXPECT_EQ(request.number("attrsonly"), 0);
        EXPECT_THAT(request.controls("serverctrls"),
            ElementsAre(Control{kPagedResultsOid, true, pagedResultsValue(2, cookies[page])}));
        EXPECT_TRUE(request.isNull("clientctrls"));
        EXPECT_EQ(request.time("timeout"), (RecordedCall::Time{30, 0}));
        EXPECT_EQ(request.number("sizelimit"), 0);
    }
}

TEST_F(PagedSearchCalls, PassNullForNoFilterAndNoAttributes)
{
    recorder.fail(ldap_search_ext, LDAP_SERVER_DOWN);
    session->setResponseTimeout(std::chrono::seconds(7));

    session->search({}, 2);

    const auto request = recorder.only("ldap_search_ext");
    EXPECT_EQ(request.text("base"), "");
    EXPECT_TRUE(request.isNull("filter"));
    EXPECT_TRUE(request.isNull("attrs"));
    EXPECT_EQ(request.time("timeout"), (RecordedCall::Time{7, 0}));
}

TEST_F(PagedSearchCalls, BuildTheControlForThePageSizeAndTheCookieOfThePageBefore)
{
    serveThreePages();

    fetch();

    const auto controls = recorder.calls("ldap_create_page_control");
    ASSERT_THAT(controls, SizeIs(3));
    const std::vector<Bytes> cookies{"", "one", "two"};
    for (std::size_t page = 0; page < controls.size(); ++page) {
        EXPECT_EQ(controls[page].number("pagesize"), 2);
        EXPECT_EQ(controls[page].text("cookie"), cookies[page]);
        EXPECT_EQ(controls[page].number("iscritical"), 1);
    }
    EXPECT_TRUE(recorder.calls("ldap_parse_pageresponse_control").front().isNull("count"));
}

TEST_F(PagedSearchCalls, WaitForTheWholeResultWithMinusOneSecond)
{
    server.expectSearch().answer(entries(1, 1), done());

    fetch();

    const auto poll = recorder.only("ldap_result");
    EXPECT_EQ(poll.number("msgid"), recorder.only("ldap_search_ext").number("msgid"));
    EXPECT_EQ(poll.number("all"), LDAP_MSG_ALL);
    EXPECT_EQ(poll.time("timeout"), (RecordedCall::Time{-1, 0}));
}

TEST_F(PagedSearchCalls, PollAgainAfterATenthOfASecondWhenNothingHasCome)
{
    server.expectSearch().answer(entries(1, 1), done());
    pollInVain(2);
    recorder.fail(nanosleep, 0);

    EXPECT_THAT(resultsOf(fetch()), ElementsAre(Result::ok));

    EXPECT_THAT(namesAmong(recorder, {"ldap_result", "nanosleep"}),
        ElementsAre("ldap_result", "nanosleep", "ldap_result", "nanosleep", "ldap_result"));
    EXPECT_THAT(sleeps(), Each(kPollInterval));
    EXPECT_EQ(recorder.count("ldap_search_ext"), 1U);
}

TEST_F(PagedSearchCalls, SleepOnForTheRemainderWhenASignalWakesThem)
{
    server.expectSearch().answer(entries(1, 1), done());
    pollInVain(1);
    std::atomic<int> naps = 0;
    recorder.replace(nanosleep, [&](const timespec*, timespec* remaining) {
        if (++naps > 2)
            return 0;
        *remaining = {0, 40'000'000 / naps};
        errno = EINTR;
        return -1;
    });

    EXPECT_THAT(resultsOf(fetch()), ElementsAre(Result::ok));

    EXPECT_THAT(sleeps(),
        ElementsAre(kPollInterval, RecordedCall::Time{0, 40'000'000}, RecordedCall::Time{0, 20'000'000}));
}

TEST_F(PagedSearchCalls, PollNoMoreOnceTheyAreStopped)
{
    server.otherwise([](const Request&) { return Steps(); });
    pollInVain(1);
    const auto context = makeContext();
    recorder.replace(nanosleep, [&](const timespec*, timespec*) {
        context->stopAsyncSearch();
        return 0;
    });
    HandlerCalls calls;

    context->asyncSearch(calls.handler(), 2);

    EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::cancelled));
    recorder.waitForReturns("nanosleep", 1);
    EXPECT_EQ(recorder.count("ldap_result"), 1U);
}

TEST_F(PagedSearchCalls, TakeAnyPositiveReturnForAResult)
{
    for (const int type : std::initializer_list<int>{LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_REFERENCE, 1}) {
        server.expectSearch().answer(entries(1, 1), done());
        returnInsteadOfTheType(type);

        const auto calls = fetch();

        EXPECT_THAT(resultsOf(calls), ElementsAre(Result::ok));
        EXPECT_THAT(dnsOf(calls.front().entries), ElementsAre("cn=1"));
    }
}

TEST_F(PagedSearchCalls, EndWithErrnoWhenTheRequestCannotBeSent)
{
    recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
    recorder.fail(ldap_search_ext, LDAP_FILTER_ERROR, {.error = EXDEV});

    expectOnly(Result::noSuchObject);

    EXPECT_TRUE(log.contains("ldap_search_ext: Bad search filter (Invalid cross-device link)"));
    EXPECT_EQ(recorder.count("ldap_result"), 0U);
}

TEST_F(PagedSearchCalls, EndBeforeTheRequestWhenTheControlCannotBeBuilt)
{
    recorder.fail(ldap_create_page_control, LDAP_NO_MEMORY, {.error = EXDEV});

    expectOnly(Result::connectError);

    EXPECT_TRUE(log.contains("ldap_create_page_control: Out of memory"));
    EXPECT_FALSE(log.contains("Invalid cross-device link"));
    EXPECT_EQ(recorder.count("ldap_search_ext"), 0U);
}

TEST_F(PagedSearchCalls, EndAsServerDownWithErrnoWhenThePollFailsWithoutAMessage)
{
    server.otherwise([](const Request&) { return Steps(); });
    recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
    recorder.fail(ldap_result, -1, {.error = ECONNRESET});

    expectOnly(Result::connectError);

    EXPECT_TRUE(log.contains("ldap_result: Can't contact LDAP server (Connection reset by peer)"));
    EXPECT_EQ(recorder.count("ldap_parse_result"), 0U);
}

TEST_F(PagedSearchCalls, EndWithTheCodeOfTheMessageThatAFailedPollBroughtAndFreeIt)
{
    server.expectSearch().answer(done(4));
    recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
    returnInsteadOfTheType(-1);

    expectOnly(Result::sizeLimitExceeded);

    EXPECT_TRUE(log.contains("ldap_result: Size limit exceeded (Invalid cross-device link)"));
    EXPECT_EQ(recorder.only("ldap_parse_result").number("freeit"), 1);
    EXPECT_EQ(recorder.count("ldap_msgfree"), 0U);
}

TEST_F(PagedSearchCalls, EndWithTheParsersCodeWhenThatMessageCannotBeParsed)
{
    server.expectSearch().answer(done(4));
    returnInsteadOfTheType(-1);
    recorder.fail(ldap_parse_result, LDAP_FILTER_ERROR);

    expectOnly(Result::noSuchObject);

    EXPECT_TRUE(log.contains("ldap_result: Bad search filter"));
}

TEST_F(PagedSearchCalls, EndWithTheServersCodeAndFreeThePageOnceWithoutReadingIt)
{
    server.expectSearch().answer(entries(1, 2), done(32).matched("dc=x").diagnostic("gone"));

    expectOnly(Result::noSuchObject);
    recorder.waitForReturns("ldap_destroy", 1);

    EXPECT_TRUE(log.contains("Search failed for [dc=x], matched DN [dc=x]; the server says: [gone]"));
    EXPECT_EQ(recorder.count("ldap_get_dn"), 0U);
    EXPECT_EQ(recorder.count("ldap_msgfree"), 1U);
}

TEST_F(PagedSearchCalls, FreeTheReferralsThatComeWithTheServersCode)
{
    server.expectSearch().answer(
        done(LDAP_REFERRAL).referrals({"ldap://127.0.0.1/dc=y", "ldap://127.0.0.1/dc=z"}));

    expectOnly(Result::connectError);

    EXPECT_EQ(recorder.count("ber_memvfree"), 1U);
}

TEST_F(PagedSearchCalls, EndWithTheParsersCodeAndFreeAnUnparsablePageOnce)
{
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    recorder.fail(ldap_parse_result, LDAP_FILTER_ERROR, {.nth = 1});

    expectOnly(Result::noSuchObject);
    recorder.waitForReturns("ldap_destroy", 1);

    EXPECT_EQ(recorder.count("ldap_msgfree"), 1U);
}

TEST_F(PagedSearchCalls, EndWithoutEntriesWhenTheControlsCannotBeParsed)
{
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    recorder.fail(ldap_parse_result, LDAP_FILTER_ERROR, {.nth = 2, .error = EXDEV});

    expectOnly(Result::noSuchObject);
    recorder.waitForReturns("ldap_destroy", 1);

    EXPECT_TRUE(log.contains("ldap_parse_result: Bad search filter"));
    EXPECT_FALSE(log.contains("Invalid cross-device link"));
    EXPECT_EQ(recorder.count("ldap_msgfree"), 1U);
}

TEST_F(PagedSearchCalls, EndWithoutEntriesWhenThePageControlCannotBeParsed)
{
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    recorder.fail(ldap_parse_pageresponse_control, LDAP_DECODING_ERROR, {.error = EXDEV});

    expectOnly(Result::connectError);
    recorder.waitForReturns("ldap_destroy", 1);

    EXPECT_TRUE(log.contains("ldap_parse_pageresponse_control: Decoding error"));
    EXPECT_FALSE(log.contains("Invalid cross-device link"));
    EXPECT_EQ(recorder.count("ldap_msgfree"), 1U);
}

TEST_F(PagedSearchCalls, FreeTheLiveCookieWhenTheyAreStopped)
{
    server.expectSearch().answer(entries(1, 2), done().page("live"));
    const auto context = makeContext();
    std::promise<void> ended;

    context->asyncSearch(
        [&](Result result, const std::vector<ldap::SearchEntry>&) {
            if (result == Result::moreResults)
                context->stopAsyncSearch();
            else
                ended.set_value();
        },
        2);
    ended.get_future().get();
    recorder.waitForReturns("ber_memfree", 1);

    EXPECT_EQ(recorder.count("ldap_search_ext"), 1U);
    EXPECT_EQ(recorder.only("ldap_parse_pageresponse_control").text("cookie"), "live");
}

TEST_F(PagedSearchCalls, GoOnToTheirEndWhenTheyAreForgotten)
{
    const Gate forgotten;
    server.expectSearch().answer(entries(1, 2), done().page("one"));
    server.expectSearch().answer(waitFor(forgotten), entries(3, 2), done().page("two"));
    server.expectSearch().answer(entries(5, 1), done().page(""));
    HandlerCalls calls;
    SearchContext* const context = session->asyncSearch(params(), calls.handler(), 2);
    calls.waitForCalls(1);

    session->stopAsyncSearch(context);
    forgotten.open();
    recorder.waitForReturns("ldap_destroy", 1);

    EXPECT_EQ(recorder.count("ldap_search_ext"), 3U);
    EXPECT_EQ(calls.count(), 1U);
}

TEST_F(PagedSearchCalls, LogEachStepOfEachPage)
{
    serveThreePages();
    log.clear();

    fetch();

    std::vector<Bytes> ids;
    for (const auto& request : recorder.calls("ldap_search_ext"))
        ids.push_back(std::to_string(request.number("msgid")));
    ASSERT_THAT(ids, SizeIs(3));
    EXPECT_THAT(log.texts(log::Level::verbose),
        ElementsAre("Getting page 1 (cookie size: 0)", "Polling message id " + ids[0] + " for page 1",
            "Found 2 entries on page 1", "Getting page 2 (cookie size: 3)",
            "Polling message id " + ids[1] + " for page 2", "Found 2 entries on page 2",
            "Getting page 3 (cookie size: 3)", "Polling message id " + ids[2] + " for page 3",
            "Found 1 entries on page 3"));
    EXPECT_THAT(log.texts(log::Level::debug),
        ElementsAre("Created for [dc=x] with [(cn=*)] filter (attributes: { cn, mail })"));
}

TEST_F(PagedSearchCalls, NeverCallTheClientLibraryUnderTheirLocks)
{
    serveThreePages();
    const LockWatch locks;
    std::atomic<int> calls = 0;
    std::atomic<int> underLock = 0;
    const auto look = [&] {
        ++calls;
        underLock += LockWatch::countHeldHere() != 0 ? 1 : 0;
    };
    beforeEach(recorder, ldap_dup, look);
    beforeEach(recorder, ldap_create_page_control, look);
    beforeEach(recorder, ldap_search_ext, look);
    beforeEach(recorder, ldap_control_free, look);
    beforeEach(recorder, ldap_result, look);
    beforeEach(recorder, ldap_parse_result, look);
    beforeEach(recorder, ldap_first_entry, look);
    beforeEach(recorder, ldap_next_entry, look);
    beforeEach(recorder, ldap_get_dn, look);
    beforeEach(recorder, ldap_get_values_len, look);
    beforeEach(recorder, ldap_parse_pageresponse_control, look);
    beforeEach(recorder, ldap_controls_free, look);
    beforeEach(recorder, ldap_msgfree, look);
    beforeEach(recorder, ldap_destroy, look);

    EXPECT_THAT(fetch(), SizeIs(3));
    session.reset();
    recorder.waitForReturns("ldap_destroy", 2);

    EXPECT_GT(calls, 30);
    EXPECT_EQ(underLock, 0);
}

TEST_F(PagedSearchCalls, HoldLocksDuringIntermediateCallsButNotDuringTheFinalOne)
{
    const Gate never;
    server.expectSearch().answer(entries(1, 2), done().page("one"));
    server.expectSearch().answer(entries(3, 1), done());
    server.otherwise([=](const Request&) -> Steps { return {waitFor(never), done()}; });
    const LockWatch locks;
    HandlerCalls calls;
    std::vector<std::size_t> held;
    const auto look = [&](Result result, std::vector<ldap::SearchEntry> page) {
        held.push_back(LockWatch::countHeldHere());
        calls.add(result, std::move(page));
    };

    session->asyncSearch(params(), look, 2);
    calls.waitForEnd();
    const auto stopped = makeContext();
    stopped->asyncSearch(look, 2);
    stopped->stopAsyncSearch();
    session->asyncSearch(params(), look, 2);
    session.reset();

    // The context's and the session's; all calls after the first one are final.
    EXPECT_THAT(held, ElementsAre(2U, 0U, 0U, 0U));
    never.open();
}

TEST_F(PagedSearchCalls, TakeTheSessionsLockAtFourPlaces)
{
    server.expectSearch().answer(entries(1, 2), done().page("one"));
    server.expectSearch().answer(entries(3, 1), done().page(""));
    {
        const LockWatch locks;
        fetch();
        EXPECT_THAT(locks.positionsIn("ldap/session"),
            ElementsAre("ldap/session:141", "ldap/session:153", "ldap/session:153"));
    }
    {
        const LockWatch locks;
        session->stopAsyncSearch(nullptr);
        session.reset();
        EXPECT_THAT(locks.positionsIn("ldap/session"), ElementsAre("ldap/session:177", "ldap/session:65"));
    }
}

TEST_F(PagedSearchCalls, DropAForgottenHandlerOutsideTheSessionsLock)
{
    server.otherwise([](const Request&) { return closeConnection(); });
    const LockWatch locks;
    std::optional<std::size_t> held;
    auto owned = std::shared_ptr<void>(nullptr, [&](void*) { held = LockWatch::countHeldHere(); });
    const Gate gate;
    // By value: it may be the last to need the gate.
    beforeEach(recorder, ldap_search_ext, [gate] { gate.wait("the test"); });
    SearchContext* const context = session->asyncSearch(
        params(), [owned = std::move(owned)](Result, const std::vector<ldap::SearchEntry>&) {}, 2);

    session->stopAsyncSearch(context);

    EXPECT_EQ(held, 0U);
    gate.open();
}

TEST_F(PagedSearchCalls, MakeTheErrorOfAnIntermediateCallTheirFinalResult)
{
    server.expectSearch().answer(entries(1, 2), done().page("one"));
    HandlerCalls calls;

    session->asyncSearch(
        params(),
        [&](Result result, std::vector<ldap::SearchEntry> page) {
            calls.add(result, std::move(page));
            if (result == Result::moreResults)
                throw BaseError(LDAP_INVALID_CREDENTIALS, "handler"_s, 0);
        },
        2);

    EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::moreResults, Result::invalidCredentials));
    EXPECT_THAT(calls.waitForEnd().back().entries, IsEmpty());
    EXPECT_EQ(recorder.count("ldap_search_ext"), 1U);
}

TEST_F(PagedSearchCalls, EndWithoutAFinalCallWhenAHandlerThrowsAnotherException)
{
    server.expectSearch().answer(entries(1, 2), done().page("one"));
    HandlerCalls calls;

    session->asyncSearch(
        params(),
        [&](Result result, std::vector<ldap::SearchEntry> page) {
            calls.add(result, std::move(page));
            if (result == Result::moreResults)
                throw std::runtime_error("no disk");
        },
        2);
    ASSERT_TRUE(log.waitFor("no disk"));
    EXPECT_THAT(resultsOf(calls.waitForCalls(1)), ElementsAre(Result::moreResults));
    EXPECT_THAT(log.texts(log::Level::warning),
        ElementsAre("The search below [dc=x] was ended by an exception: no disk"));

    session.reset();

    EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::moreResults, Result::cancelled));
    EXPECT_EQ(recorder.count("ldap_search_ext"), 1U);
}

TEST_F(PagedSearchCalls, LetTheNextOneRunWhenAnExceptionHasEndedThem)
{
    server.expectSearch().answer(entries(1, 2), done().page("one"));
    server.expectSearch().answer(done());
    session->asyncSearch(
        params(),
        [](Result result, const auto&) {
            if (result == Result::moreResults)
                throw std::runtime_error("no disk");
        },
        2);

    EXPECT_THAT(resultsOf(fetch()), ElementsAre(Result::ok));
}

TEST_F(PagedSearchCalls, SurviveABrokenPipe)
{
    // As when the server has closed the connection that is written to.
    beforeEach(recorder, ldap_search_ext, [] { pthread_kill(pthread_self(), SIGPIPE); });
    server.expectSearch().answer(done());

    EXPECT_THAT(resultsOf(fetch()), ElementsAre(Result::ok));
}

TEST_F(PagedSearchCalls, EndABlockingSearchThatRunsOutOfMemory)
{
    // The room for entries is doubled while they are read, so only their collecting asks for room for so
    // many.
    constexpr int kEntries = 37;
    const ScarceMemory scarce(kEntries * sizeof(ldap::SearchEntry));
    server.expectSearch().answer(entries(1, kEntries), done().page("more"));
    EXPECT_EQ(std::get<Result>(session->search(params(), kEntries)), Result::connectError);

    server.expectSearch().answer(entries(1, kEntries), done());
    EXPECT_EQ(std::get<Result>(session->search(params(), kEntries + 1)), Result::connectError);
}

TEST_F(PagedSearchCalls, AreOverWhenTheFinalCallThrows)
{
    for (const bool isLdapError : {true, false}) {
        server.expectSearch().answer(entries(1, 1), done());
        std::atomic<int> calls = 0;
        log.clear();

        session->asyncSearch(
            params(),
            [&](Result, const std::vector<ldap::SearchEntry>&) {
                ++calls;
                if (isLdapError)
                    throw BaseError(LDAP_OTHER, "no disk"_s, 0);
                throw std::runtime_error("no disk");
            },
            2);

        const std::string line =
            isLdapError ? "The last page of the search below [dc=x] was lost in its handler: no disk"
                        : "The search below [dc=x] was ended by an exception: no disk";
        ASSERT_TRUE(log.waitFor(line));
        EXPECT_THAT(log.texts(log::Level::warning), ElementsAre(HasSubstr(line)));
        EXPECT_EQ(calls, 1);
    }
}

class SearchStart : public PagedSearchCalls
{
protected:
    /// Nobody may be called for a search that could not be started, nor have to wait for it.
    void expectNoTrace(const UncalledHandler& handler)
    {
        EXPECT_TRUE(handler.isDropped());
        server.expectSearch().answer(entries(1, 1), done());
        EXPECT_THAT(resultsOf(fetch()), ElementsAre(Result::ok));
        session.reset();
    }
};

TEST_F(SearchStart, IsRefusedToAHandlerThatHasStoppedItsOwnSearch)
{
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    const auto context = makeContext();
    const AssertionCapture assertions;
    HandlerCalls calls;
    HandlerCalls refused;
    context->asyncSearch(
        [&](Result result, std::vector<ldap::SearchEntry> page) {
            if (result == Result::moreResults) {
                context->stopAsyncSearch();
                context->asyncSearch(refused.handler(), 2);
            }
            calls.add(result, std::move(page));
        },
        2);

    // Waiting for the search to end, as a start does, the handler would wait for itself.
    EXPECT_THAT(resultsOf(calls.waitForCalls(2)), ElementsAre(Result::cancelled, Result::moreResults));
    EXPECT_THAT(resultsOf(refused.waitForEnd()), ElementsAre(Result::ok));
    EXPECT_THAT(assertions.failures(),
        ElementsAre(AssertionCapture::Failure{"ldap/search_context", 192, "!isAsyncSearchRunning()", ""}));
}

TEST_F(SearchStart, MayBeRefusedInAFinalCallWithoutDelayingTheSessionsEnd)
{
    server.expectSearch().answer(entries(1, 1), done());
    const AssertionCapture assertions;
    HandlerCalls calls;
    HandlerCalls refused;
    session->asyncSearch(
        params(),
        [&](Result result, std::vector<ldap::SearchEntry> page) {
            session->asyncSearch(params(), refused.handler(), 0);
            calls.add(result, std::move(page));
        },
        2);
    EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::ok));
    EXPECT_THAT(resultsOf(refused.waitForEnd()), ElementsAre(Result::ok));
    // The thread has made two final calls, and ends once.
    session.reset();
}

TEST_F(SearchStart, FailsWithoutATraceWhenTheHandleCannotBeDuplicated)
{
    recorder.fail(ldap_dup, nullptr, {.nth = 1, .error = ENOMEM});
    UncalledHandler uncalled;

    expectError(thrownBy<BaseError>([&] { session->asyncSearch(params(), uncalled.handler(), 2); }),
        LDAP_NO_MEMORY, "ldap_dup"_s, ENOMEM);

    expectNoTrace(uncalled);
}

TEST_F(SearchStart, FailsWithoutATraceWhenNoThreadCanBeHad)
{
    UncalledHandler uncalled;
    {
        const NoThreads noThreads;
        EXPECT_THROW(session->asyncSearch(params(), uncalled.handler(), 2), std::system_error);
    }

    EXPECT_EQ(recorder.only("ldap_destroy").handle(), 2);
    expectNoTrace(uncalled);
}

TEST_F(SearchStart, FailsAsAResultWhenItIsWaitedFor)
{
    const auto resultOfSearch = [&] { return std::get<Result>(session->search(params(), 2)); };
    recorder.fail(ldap_dup, nullptr, {.nth = 1, .error = ENOMEM});
    EXPECT_EQ(resultOfSearch(), Result::connectError);
    {
        const NoThreads noThreads;
        EXPECT_EQ(resultOfSearch(), Result::connectError);
    }
    EXPECT_TRUE(log.contains("Could not start a search: "));

    server.expectSearch().answer(entries(1, 1), done());
    EXPECT_THAT(std::get<std::vector<ldap::SearchEntry>>(session->search(params(), 2)), SizeIs(1));
}

TEST_F(SearchStart, NeedsASharedOwner)
{
    const std::unique_ptr<SearchContext> context = session->createSearchContext(params());
    UncalledHandler uncalled;

    EXPECT_THROW(context->asyncSearch(uncalled.handler(), 2), std::bad_weak_ptr);

    EXPECT_FALSE(context->isAsyncSearchRunning());
    EXPECT_TRUE(uncalled.isDropped());
}

TEST_F(SearchStart, IsRefusedWithoutHarmWhileASearchRuns)
{
    const Gate gate;
    server.expectSearch().answer(waitFor(gate), entries(1, 1), done());
    const auto context = makeContext();
    const AssertionCapture assertions;
    HandlerCalls running;
    HandlerCalls refused;
    context->asyncSearch(running.handler(), 2);

    context->asyncSearch(refused.handler(), 2);

    EXPECT_THAT(resultsOf(refused.waitForEnd()), ElementsAre(Result::ok));
    EXPECT_THAT(refused.waitForEnd().front().entries, IsEmpty());
    EXPECT_THAT(assertions.failures(),
        ElementsAre(AssertionCapture::Failure{"ldap/search_context", 192, "!isAsyncSearchRunning()", ""}));
    EXPECT_EQ(running.count(), 0U);
    gate.open();
    EXPECT_THAT(resultsOf(running.waitForEnd()), ElementsAre(Result::ok));
    EXPECT_THAT(running.waitForEnd().front().entries, SizeIs(1));
    EXPECT_EQ(refused.count(), 1U);
}

} // namespace

} // namespace tavo::test
