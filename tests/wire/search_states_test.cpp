#include "scripted_session_test.h"
#include "support/assertion_capture.h"
#include "support/log_capture.h"
#include "support/threads_end_here.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <future>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace tavo::test {

namespace {

using ldap::Result;
using ldap::SearchContext;
using ldap::Session;

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// A session that may go, whose searches need not take turns. Still libldap lets one thread at a time wait on
/// a connection: another search sends its request, and gets what has come for it, only when that one has got
/// something. So no answer here may depend on two of them.
class SearchStates : public ::testing::Test
{
protected:
    SearchStates()
    {
        server.expectSearch().answer(entry("").attr("forestFunctionality", "7"), done());
        session->detectLdapVendor();
    }

    /// Ends what may still run, so that a call too many would have come.
    void endEverything()
    {
        session.reset();
        server.waitForClose(0);
    }

    /// So many searches have been asked for since the session's first.
    void waitForSearches(std::size_t count) { server.waitForRequests(1 + count); }

    template <class Kind>
    std::size_t countOf() const
    {
        const auto requests = server.requests();
        return static_cast<std::size_t>(std::count_if(requests.begin(), requests.end(),
            [](const auto& request) { return request.template is<Kind>(); }));
    }

    ThreadsEndHere m_threads;
    ScriptedServer server;
    std::unique_ptr<Session> session =
        std::make_unique<Session>(utils::Url(QString::fromStdString(server.url())), false, false);
};

TEST_F(SearchStates, DoNotDelayOtherSessionsAfterAnExceptionAndADestroyedSession)
{
    server.expectSearch().answer(entries(1, 2), done().page("one"));
    server.expectSearch().answer(done());
    {
        const ThreadsEndHere brokenOff;
        session->asyncSearch(
            below("dc=x"),
            [](Result result, const auto&) {
                if (result == Result::moreResults)
                    throw std::runtime_error("no disk");
            },
            2);
        waitForSearches(1);
    }
    const Gate destroyed;
    const Gate otherDestroyed;
    session->asyncSearch(
        below("dc=y"),
        // With gates of its own: nobody joins a thread that destroys its session.
        [this, destroyed, otherDestroyed](Result, const auto&) {
            session.reset();
            destroyed.open();
            otherDestroyed.wait("the end of the other session");
        },
        2);
    destroyed.wait("the end of the session");

    std::make_unique<Session>(utils::Url(QString::fromStdString(server.url())), false, false).reset();
    otherDestroyed.open();
}

TEST_F(SearchStates, DoNotDelayOtherSessionsAfterStoppingAnotherSearch)
{
    const Gate bothRun;
    const Gate never;
    server.otherwise([=](const Request& request) -> Steps {
        return {waitFor(request.as<SearchRequest>().base == "dc=stops" ? bothRun : never), done()};
    });
    HandlerCalls calls;
    const Gate stopped;
    const Gate otherDestroyed;
    std::atomic<SearchContext*> other = nullptr;
    session->asyncSearch(
        below("dc=stops"),
        [&, stopped, otherDestroyed](Result, const auto&) {
            other.load()->stopAsyncSearch();
            stopped.open();
            otherDestroyed.wait("the end of the other session");
        },
        2);
    // With a connection of its own: on a shared one, its thread might wait in the client library for the
    // answers to both, and keep the other's.
    Session second(utils::Url(QString::fromStdString(server.url())), false, false);
    other = second.asyncSearch(below("dc=stopped"), calls.handler(), 2);
    waitForSearches(2);
    bothRun.open();
    stopped.wait("the end of the stopped search");

    std::make_unique<Session>(utils::Url(QString::fromStdString(server.url())), false, false).reset();
    otherDestroyed.open();

    EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::cancelled));
    session.reset();
    never.open();
}

// For ThreadSanitizer: nothing orders the two accesses.
TEST_F(SearchStates, MayBeStartedByAHandlerWhileTheTimeLimitIsSet)
{
    server.otherwise([](const Request&) -> Steps { return {done()}; });
    HandlerCalls calls;
    session->asyncSearch(
        below("dc=x"),
        [&, s = session.get()](Result, const std::vector<ldap::SearchEntry>&) {
            s->asyncSearch(below("dc=y"), calls.handler(), 2);
        },
        2);
    session->setResponseTimeout(std::chrono::seconds(7));
    EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::ok));
}

TEST_F(SearchStates, AreRefusedInAFinalCallMadeByTheEndOfTheSession)
{
    const Gate never;
    server.otherwise([=](const Request&) -> Steps { return {waitFor(never), done()}; });
    HandlerCalls calls;
    HandlerCalls callsOfSecond;
    std::optional<int> refusal;
    session->asyncSearch(
        below("dc=x"),
        [&, s = session.get()](Result result, std::vector<ldap::SearchEntry> page) {
            try {
                s->asyncSearch(below("dc=y"), callsOfSecond.handler(), 2);
            } catch (const ldap::BaseError& error) {
                refusal = error.ldapCode;
            }
            calls.add(result, std::move(page));
        },
        2);
    waitForSearches(1);

    session.reset();

    EXPECT_EQ(refusal, LDAP_USER_CANCELLED);
    EXPECT_THAT(resultsOf(calls.waitForCalls(1)), ElementsAre(Result::cancelled));
    EXPECT_EQ(callsOfSecond.count(), 0U);
    never.open();
}

TEST_F(SearchStates, AreCancelledWhenBlockingInAFinalCallMadeByTheSessionsEnd)
{
    const Gate never;
    server.otherwise([=](const Request&) -> Steps { return {waitFor(never), done()}; });
    std::optional<Result> outcome;
    session->asyncSearch(
        below("dc=x"),
        [&, s = session.get()](Result, const std::vector<ldap::SearchEntry>&) {
            outcome = std::get<Result>(s->search(below("dc=y"), 2));
        },
        2);
    waitForSearches(1);

    session.reset();

    EXPECT_EQ(outcome, Result::cancelled);
    never.open();
}

TEST_F(SearchStates, CannotBlockAHandlerInAnIntermediateCall)
{
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    server.expectSearch().answer(done());
    std::error_code refusal;
    HandlerCalls calls;
    session->asyncSearch(
        below("dc=x"),
        [&](Result result, std::vector<ldap::SearchEntry> page) {
            if (result == Result::moreResults) {
                try {
                    session->search(below("dc=y"), 2);
                } catch (const std::system_error& error) {
                    refusal = error.code();
                }
            }
            calls.add(result, std::move(page));
        },
        2);

    EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::moreResults, Result::ok));
    EXPECT_EQ(refusal, std::errc::resource_deadlock_would_occur);
    server.expectSearch().answer(entries(1, 1), done());
    EXPECT_THAT(std::get<std::vector<ldap::SearchEntry>>(session->search(below("dc=y"), 2)), SizeIs(1));
}

TEST_F(SearchStates, CannotBlockAHandlerOfAContextThatHoldsUpItsSession)
{
    Session inTurns(utils::Url(QString::fromStdString(server.url())), false, false);
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    server.expectSearch().answer(done());
    std::error_code refusal;
    HandlerCalls calls;
    const std::shared_ptr<SearchContext> context = inTurns.createSearchContext(below("dc=x"));
    context->asyncSearch(
        [&](Result result, std::vector<ldap::SearchEntry> page) {
            if (result == Result::moreResults) {
                try {
                    inTurns.search(below("dc=y"), 2);
                } catch (const std::system_error& error) {
                    refusal = error.code();
                }
            }
            calls.add(result, std::move(page));
        },
        2);

    EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::moreResults, Result::ok));
    EXPECT_EQ(refusal, std::errc::resource_deadlock_would_occur);
}

// For AddressSanitizer and ThreadSanitizer: the session must not go while its own lock is held.
TEST_F(SearchStates, MayForgetThemselvesInAHandlerThatOwnsTheSession)
{
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    server.expectSearch().answer(done());
    std::promise<SearchContext*> started;
    std::shared_ptr<Session> shared = std::move(session);
    started.set_value(shared->asyncSearch(
        below("dc=x"),
        [owned = shared, own = std::make_shared<std::future<SearchContext*>>(started.get_future())](
            Result, const std::vector<ldap::SearchEntry>&) { owned->stopAsyncSearch(own->get()); },
        2));
    const std::weak_ptr<Session> observed = shared;

    shared.reset();

    server.waitForClose(0);
    EXPECT_TRUE(observed.expired());
}

TEST_F(SearchStates, EndWithAWarningWhenAHandlerThrowsANonException)
{
    const LogCapture log;
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    std::vector<Result> results;
    session->asyncSearch(
        below("dc=x"),
        [&](Result result, const std::vector<ldap::SearchEntry>&) {
            results.push_back(result);
            throw 42;
        },
        2);

    EXPECT_TRUE(log.waitFor("The search below [dc=x] was ended by an exception: it is of no known type"));
    session.reset();

    EXPECT_THAT(results, ElementsAre(Result::moreResults, Result::cancelled));
    EXPECT_TRUE(log.contains("threw something that is no exception"));
}

TEST_F(SearchStates, MayThrowWhenTheyAreCancelledByTheEndOfTheSession)
{
    const LogCapture log;
    const ThreadsEndHere beforeTheLog;
    const Gate never;
    server.otherwise([=](const Request&) -> Steps { return {waitFor(never), done()}; });
    session->asyncSearch(
        below("dc=x"),
        [](Result, const std::vector<ldap::SearchEntry>&) { throw std::runtime_error("no disk"); }, 2);
    waitForSearches(1);

    session.reset();

    EXPECT_TRUE(log.contains("The handler of a cancelled search threw an exception: no disk"));
    never.open();
}

TEST_F(SearchStates, AreAllCancelledByTheThreadThatDestroysTheSession)
{
    const Gate never;
    server.otherwise([=](const Request&) -> Steps { return {waitFor(never), done()}; });
    std::vector<SearchContext*> called;
    std::vector<std::thread::id> threads;
    HandlerCalls calls;
    std::vector<SearchContext*> started(2);
    for (auto& context : started) {
        context = session->asyncSearch(
            below("dc=x"),
            [&](Result result, std::vector<ldap::SearchEntry> page) {
                called.push_back(context);
                threads.push_back(std::this_thread::get_id());
                calls.add(result, std::move(page));
            },
            2);
    }
    waitForSearches(1);

    std::thread destroyer([&] { session.reset(); });
    const auto destroyersId = destroyer.get_id();
    destroyer.join();

    EXPECT_THAT(threads, ElementsAre(destroyersId, destroyersId));
    EXPECT_THAT(resultsOf(calls.waitForCalls(2)), ElementsAre(Result::cancelled, Result::cancelled));
    EXPECT_THAT(calls.waitForCalls(2).front().entries, IsEmpty());
    // The table is ordered by the contexts' addresses.
    std::sort(started.begin(), started.end());
    EXPECT_EQ(called, started);
    never.open();
    server.waitForClose(0);
    EXPECT_EQ(calls.count(), 2U);
}

TEST_F(SearchStates, EndABlockingSearchWhenAnotherThreadDestroysTheSession)
{
    const Gate never;
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    server.expectSearch().answer(waitFor(never), done());
    auto outcome = std::async(std::launch::async, [&] { return session->search(below("dc=x"), 2); });
    waitForSearches(2);

    session.reset();

    EXPECT_EQ(std::get<Result>(outcome.get()), Result::cancelled);
    never.open();
}

/// The context of the search that was made last; blocking callers never see theirs.
SearchContext* lastContext(const LogCapture& log)
{
    std::string tag;
    for (const auto& message : log.messages()) {
        if (message.text.rfind("Created for", 0) == 0)
            tag = message.tag;
    }
    const auto address = tag.find("0x");
    return reinterpret_cast<SearchContext*>(std::stoull(tag.substr(address), nullptr, 16));
}

TEST_F(SearchStates, BreakThePromiseOfABlockingSearchThatIsForgotten)
{
    const LogCapture log;
    const ThreadsEndHere beforeTheLog;
    const Gate never;
    server.expectSearch().answer(waitFor(never), done());
    auto outcome = std::async(std::launch::async, [&] { return session->search(below("dc=x"), 2); });
    waitForSearches(1);

    session->stopAsyncSearch(lastContext(log));

    EXPECT_THROW(outcome.get(), std::future_error);
    never.open();
}

TEST_F(SearchStates, EndOnceWhenTheEndRacesAStop)
{
    constexpr int kRounds = 100;
    std::vector<HandlerCalls> calls(kRounds);
    for (auto& called : calls) {
        const Gate sent;
        server.expectSearch().answer(entries(1, 1), done(), opens(sent));
        const std::shared_ptr<SearchContext> context = session->createSearchContext(below("dc=x"));
        context->asyncSearch(called.handler(), 2);

        sent.wait("the answer");
        context->stopAsyncSearch();
        called.waitForEnd();
    }
    endEverything();

    for (auto& called : calls) {
        const auto all = called.waitForEnd();
        ASSERT_THAT(all, SizeIs(1));
        EXPECT_THAT(all.front().result, AnyOf(Result::ok, Result::cancelled));
        EXPECT_THAT(all.front().entries, SizeIs(all.front().result == Result::ok ? 1 : 0));
    }
}

TEST_F(SearchStates, CallNobodyTwiceWhenTheEndRacesAForgetting)
{
    constexpr int kRounds = 100;
    std::vector<HandlerCalls> calls(kRounds);
    for (auto& called : calls) {
        const Gate sent;
        server.expectSearch().answer(entries(1, 1), done(), opens(sent));
        SearchContext* const context = session->asyncSearch(below("dc=x"), called.handler(), 2);

        sent.wait("the answer");
        session->stopAsyncSearch(context);
    }
    endEverything();

    for (auto& called : calls)
        EXPECT_LE(called.count(), 1U);
}

TEST_F(SearchStates, AreCancelledOnceByTwoStops)
{
    const Gate never;
    server.expectSearch().answer(waitFor(never), entries(1, 1), done());
    std::shared_ptr<SearchContext> context = session->createSearchContext(below("dc=x"));
    HandlerCalls calls;
    EXPECT_FALSE(context->isAsyncSearchRunning());
    context->asyncSearch(calls.handler(), 2);
    EXPECT_TRUE(context->isAsyncSearchRunning());
    waitForSearches(1);

    context->stopAsyncSearch();
    EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::cancelled));
    EXPECT_THAT(calls.waitForEnd().front().entries, IsEmpty());
    EXPECT_FALSE(context->isAsyncSearchRunning());
    context->stopAsyncSearch();

    EXPECT_EQ(calls.count(), 1U);
    never.open();
    context.reset();
    endEverything();
    EXPECT_EQ(calls.count(), 1U);
    EXPECT_EQ(countOf<AbandonRequest>(), 0U);
}

TEST_F(SearchStates, MayBeStoppedBeforeTheirThreadHasAsked)
{
    constexpr int kRounds = 100;
    server.otherwise([](const Request&) -> Steps { return {entries(1, 1), done()}; });
    std::vector<HandlerCalls> calls(kRounds);
    for (auto& called : calls) {
        const std::shared_ptr<SearchContext> context = session->createSearchContext(below("dc=x"));
        context->asyncSearch(called.handler(), 2);
        context->stopAsyncSearch();
    }
    endEverything();

    for (auto& called : calls)
        EXPECT_THAT(called.waitForEnd(), SizeIs(1));
}

TEST_F(SearchStates, CompleteAnIntermediateCallBeforeTheyAreCancelled)
{
    server.otherwise([](const Request&) -> Steps { return {entries(1, 2), done().page("more")}; });
    std::shared_ptr<SearchContext> context = session->createSearchContext(below("dc=x"));
    const Gate pageCame;
    const Gate stopping;
    std::atomic<bool> isInCall = false;
    std::atomic<bool> isCancelledMeanwhile = false;
    context->asyncSearch(
        [&](Result result, const std::vector<ldap::SearchEntry>&) {
            if (result != Result::moreResults) {
                isCancelledMeanwhile = isInCall.load();
                return;
            }
            isInCall = true;
            pageCame.open();
            stopping.wait("the stop");
            // Time enough for a stop that doesn't wait to go through.
            for (int i = 0; i < 1000; ++i)
                std::this_thread::yield();
            isInCall = false;
        },
        2);
    pageCame.wait("a page");

    std::thread stopper([&] {
        stopping.open();
        context->stopAsyncSearch();
    });
    stopper.join();

    EXPECT_FALSE(isInCall);
    EXPECT_FALSE(isCancelledMeanwhile);
    context.reset();
    endEverything();
}

TEST_F(SearchStates, CompleteAFinalCallBeforeTheirSessionIsGone)
{
    server.expectSearch().answer(done());
    const Gate isInCall;
    const Gate ending;
    std::atomic<bool> isGone = false;
    std::atomic<bool> isGoneTooSoon = true;
    session->asyncSearch(
        below("dc=x"),
        [&](Result, const std::vector<ldap::SearchEntry>&) {
            isInCall.open();
            ending.wait("the session's end");
            // Time enough for an end that doesn't wait to come.
            for (int i = 0; i < 1000; ++i)
                std::this_thread::yield();
            isGoneTooSoon = isGone.load();
        },
        2);
    isInCall.wait("the final call");

    ending.open();
    session.reset();
    isGone = true;

    EXPECT_FALSE(isGoneTooSoon);
    server.waitForClose(0);
}

TEST_F(SearchStates, OutliveTheirSessionUncalledWhenTheyAreForgotten)
{
    const Gate answer;
    server.expectSearch().answer(waitFor(answer), entries(1, 2), done().page("more"));
    HandlerCalls calls;
    SearchContext* const context = session->asyncSearch(below("dc=x"), calls.handler(), 2);
    waitForSearches(1);
    server.otherwise([](const Request&) -> Steps { return {entries(3, 1), done()}; });

    session->stopAsyncSearch(context);
    session.reset();
    EXPECT_EQ(server.openConnections(), 1U);
    answer.open();

    server.waitForClose(0);
    EXPECT_EQ(calls.count(), 0U);
}

/// Full pages for ever, the first one when the gate opens.
void serveEndlessPages(ScriptedServer& server, const Gate& first)
{
    server.expectSearch().answer(waitFor(first), entries(1, 2), done().page("more"));
    server.otherwise([](const Request&) -> Steps { return {entries(1, 2), done().page("more")}; });
}

TEST_F(SearchStates, AskForNoMorePagesWhenTheirSessionIsGone)
{
    const Gate answer;
    serveEndlessPages(server, answer);
    HandlerCalls calls;
    session->asyncSearch(below("dc=x"), calls.handler(), 2);
    waitForSearches(1);

    session.reset();
    EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::cancelled));
    const std::size_t asked = countOf<SearchRequest>();
    answer.open();

    server.waitForClose(0);
    EXPECT_EQ(countOf<SearchRequest>(), asked);
    EXPECT_EQ(calls.count(), 1U);
}

TEST_F(SearchStates, AskForNoMorePagesWhenTheyWereForgottenAndTheirSessionIsGone)
{
    const Gate answer;
    serveEndlessPages(server, answer);
    UncalledHandler uncalled;
    SearchContext* const context = session->asyncSearch(below("dc=x"), uncalled.handler(), 2);
    waitForSearches(1);
    session->stopAsyncSearch(context);
    const std::size_t asked = countOf<SearchRequest>();

    session.reset();
    answer.open();

    server.waitForClose(0);
    EXPECT_EQ(countOf<SearchRequest>(), asked);
}

// For ThreadSanitizer and AddressSanitizer: the pages come and go while the sessions do.
TEST_F(SearchStates, MayLoseTheirSessionBetweenAnyPages)
{
    constexpr int kRounds = 50;
    server.otherwise([](const Request&) -> Steps { return {entries(1, 2), done().page("more")}; });
    session.reset();
    for (int round = 0; round < kRounds; ++round) {
        HandlerCalls calls;
        Session own(utils::Url(QString::fromStdString(server.url())), false, false);
        own.asyncSearch(below("dc=x"), calls.handler(), 2);
        UncalledHandler uncalled;
        own.stopAsyncSearch(own.asyncSearch(below("dc=y"), uncalled.handler(), 2));
        calls.waitForCalls(static_cast<std::size_t>(round % 4));
    }
    server.waitForClose(0);
}

TEST_F(SearchStates, GoOnWithoutTheirSessionWithAContextOfTheirOwn)
{
    const Gate answer;
    server.expectSearch().answer(waitFor(answer), entries(1, 2), done().page("more"));
    server.expectSearch().answer(entries(3, 1), done());
    HandlerCalls calls;
    const std::shared_ptr<SearchContext> context = session->createSearchContext(below("dc=x"));
    context->asyncSearch(calls.handler(), 2);
    waitForSearches(1);

    session.reset();
    answer.open();

    EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::moreResults, Result::ok));
}

TEST_F(SearchStates, CannotBeForgottenOnceTheyAreOver)
{
    server.expectSearch().answer(entries(1, 1), done());
    HandlerCalls calls;
    SearchContext* const context = session->asyncSearch(below("dc=x"), calls.handler(), 2);
    calls.waitForEnd();

    session->stopAsyncSearch(context);

    EXPECT_EQ(calls.count(), 1U);
    server.expectSearch().answer(entries(1, 1), done());
    EXPECT_THAT(std::get<std::vector<ldap::SearchEntry>>(session->search(below("dc=x"), 2)), SizeIs(1));
}

TEST_F(SearchStates, AreUnharmedByLateStopsOfOthers)
{
    constexpr int kRounds = 300;
    server.otherwise([](const Request&) -> Steps { return {entries(1, 1), done()}; });
    std::vector<SearchContext*> ended;
    for (int round = 0; round < kRounds; ++round) {
        HandlerCalls calls;
        SearchContext* const context = session->asyncSearch(below("dc=x"), calls.handler(), 2);
        for (SearchContext* const former : ended)
            session->stopAsyncSearch(former);
        EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::ok));
        ended.push_back(context);
    }
}

TEST_F(SearchStates, BlockToTheirEndDuringLateStopsOfOthers)
{
    constexpr int kRounds = 300;
    server.otherwise([](const Request&) -> Steps { return {entries(1, 1), done()}; });
    HandlerCalls calls;
    SearchContext* const ended = session->asyncSearch(below("dc=x"), calls.handler(), 2);
    calls.waitForEnd();
    std::atomic<bool> isOver = false;
    std::thread stopper([&] {
        while (!isOver)
            session->stopAsyncSearch(ended);
    });

    for (int round = 0; round < kRounds; ++round) {
        EXPECT_NO_THROW({
            EXPECT_THAT(
                std::get<std::vector<ldap::SearchEntry>>(session->search(below("dc=x"), 2)), SizeIs(1));
        });
    }
    isOver = true;
    stopper.join();
}

// A refused start ends a search at the least expense.
TEST_F(SearchStates, GetNoAddressTwiceInFourThousandOfThem)
{
    constexpr std::size_t kSearches = 4096;
    const AssertionCapture assertions;
    const Gate never;
    server.expectSearch().answer(done());
    server.expectSearch().answer(waitFor(never), done());
    HandlerCalls calls;
    UncalledHandler uncalled;
    std::set<SearchContext*> addresses{session->asyncSearch(below("dc=x"), calls.handler(), 2)};
    calls.waitForEnd();
    SearchContext* const stopped = session->asyncSearch(below("dc=x"), uncalled.handler(), 2);
    addresses.insert(stopped);
    waitForSearches(2);
    session->stopAsyncSearch(stopped);
    never.open();

    while (addresses.size() <= kSearches) {
        const bool isNew = addresses
                               .insert(session->asyncSearch(
                                   below("dc=x"), [](Result, const auto&) {}, 0))
                               .second;
        ASSERT_TRUE(isNew) << "after " << addresses.size();
    }
}

// Searches of a server that is asked for one page at a time, as OpenLDAP has to be.

TEST(WaitingSearch, NeverAsksWhenItIsStoppedBeforeItsTurn)
{
    constexpr std::size_t kRounds = 20;
    ScriptedServer server;
    auto session = std::make_unique<Session>(utils::Url(QString::fromStdString(server.url())), false, false);
    for (std::size_t round = 1; round <= kRounds; ++round) {
        const Gate answer;
        server.expectSearch().base("dc=first").answer(waitFor(answer), done());
        HandlerCalls first;
        HandlerCalls second;
        session->asyncSearch(below("dc=first"), first.handler(), 2);
        SearchContext* const context = session->asyncSearch(below("dc=second"), second.handler(), 2);
        server.waitForRequests(round);

        context->stopAsyncSearch();

        EXPECT_THAT(resultsOf(second.waitForEnd()), ElementsAre(Result::cancelled));
        answer.open();
        EXPECT_THAT(resultsOf(first.waitForEnd()), ElementsAre(Result::ok));
    }
    session.reset();
    server.waitForClose(0);
}

TEST(WaitingSearch, WaitsForItsTurnAlsoWithAContextOfItsOwn)
{
    constexpr int kRounds = 20;
    ScriptedServer server;
    auto session = std::make_unique<Session>(utils::Url(QString::fromStdString(server.url())), false, false);
    for (int round = 0; round < kRounds; ++round) {
        const Gate answer;
        server.expectSearch()
            .base("dc=first")
            .paged(2, "")
            .answer(waitFor(answer), entries(1, 2), done().page("more"));
        server.expectSearch().base("dc=first").paged(2, "more").answer(done());
        server.expectSearch().base("dc=second").answer(done());
        HandlerCalls first;
        HandlerCalls second;
        session->asyncSearch(below("dc=first"), first.handler(), 2);
        const std::shared_ptr<SearchContext> context = session->createSearchContext(below("dc=second"));
        context->asyncSearch(second.handler(), 2);

        answer.open();

        EXPECT_THAT(resultsOf(first.waitForEnd()), ElementsAre(Result::moreResults, Result::ok));
        EXPECT_THAT(resultsOf(second.waitForEnd()), ElementsAre(Result::ok));
    }
    session.reset();
    server.waitForClose(0);
}

TEST(WaitingSearch, TakesANewTurnWhenItsContextStartsAgain)
{
    ScriptedServer server;
    Session session(utils::Url(QString::fromStdString(server.url())), false, false);
    const std::shared_ptr<SearchContext> context = session.createSearchContext(below("dc=x"));
    for (int round = 0; round < 3; ++round) {
        server.expectSearch().answer(entries(1, 2), done().page("more"));
        server.expectSearch().answer(done());
        server.expectSearch().answer(entries(1, 1), done());
        HandlerCalls calls;
        context->asyncSearch(calls.handler(), 2);
        EXPECT_THAT(std::get<std::vector<ldap::SearchEntry>>(session.search(below("dc=y"), 2)), SizeIs(1));
        EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::moreResults, Result::ok));
    }
}

TEST(RefusedSearch, GivesItsTurnUpBeforeItsHandlerIsCalled)
{
    ScriptedServer server;
    server.expectSearch().answer(entries(1, 1), done());
    Session session(utils::Url(QString::fromStdString(server.url())), false, false);
    std::size_t found = 0;

    session.asyncSearch(
        below("dc=x"),
        [&](Result, const std::vector<ldap::SearchEntry>&) {
            found = std::get<std::vector<ldap::SearchEntry>>(session.search(below("dc=y"), 2)).size();
        },
        0);

    EXPECT_EQ(found, 1U);
}

TEST(RefusedSearch, LeavesTheRunningSearchOfItsContextAlone)
{
    ScriptedServer server;
    Session session(utils::Url(QString::fromStdString(server.url())), false, false);
    const AssertionCapture assertions;
    const Gate answer;
    server.expectSearch().base("dc=first").answer(waitFor(answer), done());
    server.expectSearch().base("dc=second").answer(done());
    HandlerCalls first;
    HandlerCalls second;
    HandlerCalls refused;
    session.asyncSearch(below("dc=first"), first.handler(), 2);
    const std::shared_ptr<SearchContext> waiting = session.createSearchContext(below("dc=second"));
    waiting->asyncSearch(second.handler(), 2);

    waiting->asyncSearch(refused.handler(), 0);
    answer.open();

    EXPECT_THAT(resultsOf(refused.waitForEnd()), ElementsAre(Result::ok));
    EXPECT_THAT(resultsOf(first.waitForEnd()), ElementsAre(Result::ok));
    EXPECT_THAT(resultsOf(second.waitForEnd()), ElementsAre(Result::ok));
}

// For AddressSanitizer: nothing may look at the session any more.
TEST(RefusedSearch, MayDestroyTheSessionAndThrow)
{
    ScriptedServer server;
    auto session = std::make_unique<Session>(utils::Url(QString::fromStdString(server.url())), false, false);
    const auto destroyAndThrow = [&](Result, const std::vector<ldap::SearchEntry>&) {
        session.reset();
        throw std::runtime_error("no disk");
    };

    EXPECT_THROW(session->asyncSearch(below("dc=x"), destroyAndThrow, 0), std::runtime_error);
}

TEST(WaitingSearch, IsCancelledByTheFinalCallThatDestroysTheSession)
{
    const Gate bothRun;
    const Gate never;
    ScriptedServer server;
    // It is the second one's turn before the first one's final call, so it may ask or may not.
    server.otherwise([=](const Request& request) -> Steps {
        return {waitFor(request.as<SearchRequest>().base == "dc=ends" ? bothRun : never), done()};
    });
    auto session = std::make_unique<Session>(utils::Url(QString::fromStdString(server.url())), false, false);
    HandlerCalls waiting;
    std::promise<std::thread::id> finalThread;
    std::thread::id cancellingThread;
    session->asyncSearch(
        below("dc=ends"),
        [&](Result result, const std::vector<ldap::SearchEntry>&) {
            EXPECT_EQ(result, Result::ok);
            session.reset();
            finalThread.set_value(std::this_thread::get_id());
        },
        2);
    session->asyncSearch(
        below("dc=waits"),
        [&](Result result, std::vector<ldap::SearchEntry> page) {
            cancellingThread = std::this_thread::get_id();
            waiting.add(result, std::move(page));
        },
        2);

    bothRun.open();

    EXPECT_EQ(finalThread.get_future().get(), cancellingThread);
    EXPECT_THAT(resultsOf(waiting.waitForEnd()), ElementsAre(Result::cancelled));
    never.open();
    server.waitForClose(0);
    EXPECT_EQ(waiting.count(), 1U);
}

TEST(SessionEnd, UnbindsAndCloses)
{
    ScriptedServer server;
    server.expectBind().answer(success());
    server.expectUnbind();
    {
        Session session(utils::Url(QString::fromStdString(server.url())), false, false);
        session.bind(QStringLiteral("cn=a"), QStringLiteral("b"));
    }
    server.waitForClose(0);
}

/// Ends the process with 0 at the first failed assertion, which it prints; what follows one is undefined.
void endInAnIntermediateCall()
{
    setAssertionHandler([](SourcePosition position, const char* condition, const QString&) {
        std::fprintf(stderr, "%s:%d (%s)", position.file, position.line, condition);
        _exit(0);
    });
    ScriptedServer server;
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    auto session = std::make_unique<Session>(utils::Url(QString::fromStdString(server.url())), false, false);
    const Gate never;
    session->asyncSearch(
        below("dc=x"), [&](Result, const std::vector<ldap::SearchEntry>&) { session.reset(); }, 2);
    never.wait("the end of the process");
}

TEST(SessionEndDeathTest, IsReportedFirstInAnIntermediateCall)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        endInAnIntermediateCall(), ::testing::ExitedWithCode(0), "ldap/session:64 \\(!m_isDelivering");
}

TEST(SearchThreads, AreNotThereBeforeASearch)
{
    ScriptedServer server;
    server.expectSearch().answer(done());
    server.expectBind().answer(success());
    const std::size_t before = countIn("/proc/self/task");

    Session session(utils::Url(QString::fromStdString(server.url())), false, false);
    session.detectLdapVendor();
    session.bind(QStringLiteral("cn=a"), QStringLiteral("b"));

    EXPECT_EQ(countIn("/proc/self/task"), before);
}

} // namespace

} // namespace tavo::test
