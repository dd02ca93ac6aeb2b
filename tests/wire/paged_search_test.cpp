#include "scripted_session_test.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavo::test {

namespace {

using ldap::Result;

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

constexpr unsigned kSequence = 0x30;
constexpr unsigned kControls = 0xa0;

class PagedSearch : public ScriptedSessionTest
{};

TEST_F(PagedSearch, SendsTheSameRequestForEveryPageButForTheCookie)
{
    for (const char* cookie : {"", "one", "two"}) {
        server.expectSearch()
            .base("ou=people,dc=x")
            .scope(1)
            .deref(0)
            .sizeLimit(0)
            .timeLimit(30)
            .typesOnly(false)
            .filter("(cn=*)")
            .attributes({"cn", "mail"})
            .paged(2, cookie)
            .answer(entries(1, 2), done().page(*cookie ? Bytes(cookie) == "one" ? "two" : "" : "one"));
    }

    const auto outcome = session.search({QStringLiteral("ou=people,dc=x"), QStringLiteral("(cn=*)"),
                                            {"cn", "mail"}, ldap::SearchScope::oneLevel},
        2);

    EXPECT_THAT(std::get<std::vector<ldap::SearchEntry>>(outcome), SizeIs(6));
}

TEST_F(PagedSearch, SendsObjectClassPresenceAndAllAttributesByDefault)
{
    server.expectSearch().filter("(objectclass=*)").attributes({}).answer(done());

    EXPECT_EQ(resultsOf(fetch(2)), std::vector{Result::ok});
}

TEST_F(PagedSearch, DeliversThePagesInOrderAndTheLastOneAsTheEnd)
{
    server.expectSearch().paged(2, "").answer(entries(1, 2), done().page("a"));
    server.expectSearch().paged(2, "a").answer(entries(3, 2), done().page("b"));
    server.expectSearch().paged(2, "b").answer(entries(5, 1), done().page(""));

    const auto calls = fetch(2);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::moreResults, Result::moreResults, Result::ok));
    EXPECT_THAT(dnsOf(calls.at(0).entries), ElementsAre("cn=1", "cn=2"));
    EXPECT_THAT(dnsOf(calls.at(1).entries), ElementsAre("cn=3", "cn=4"));
    EXPECT_THAT(dnsOf(calls.at(2).entries), ElementsAre("cn=5"));
}

TEST_F(PagedSearch, TakesTheCookieOfTheFirstOfSeveralPageControls)
{
    server.expectSearch().answer(entries(1, 2), done().page("first").page("second"));
    server.expectSearch().paged(2, "first").answer(done());

    EXPECT_THAT(resultsOf(fetch(2)), ElementsAre(Result::moreResults, Result::ok));
}

TEST_F(PagedSearch, FindsThePageControlAmongOthers)
{
    server.expectSearch().answer(entries(1, 2),
        done().control({"1.2.3", true, "x"}).page("mine").control({"1.2.4", false, std::nullopt}));
    server.expectSearch().paged(2, "mine").answer(done());

    EXPECT_THAT(resultsOf(fetch(2)), ElementsAre(Result::moreResults, Result::ok));
}

/// The value of a page control that can't be read.
struct BrokenValue
{
    const char* name;
    std::optional<Bytes> value;
};

void PrintTo(const BrokenValue& broken, std::ostream* out) { *out << broken.name; }

class MalformedPageControl : public ScriptedSessionTest, public ::testing::WithParamInterface<BrokenValue>
{};

TEST_P(MalformedPageControl, FailsAFullPageWithoutEntries)
{
    server.expectSearch().answer(entries(1, 2), done().control({kPagedResultsOid, false, GetParam().value}));

    const auto calls = fetch(2);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::connectError));
    EXPECT_THAT(calls.at(0).entries, IsEmpty());
}

TEST_P(MalformedPageControl, IsIgnoredAfterAShortPage)
{
    server.expectSearch().answer(entries(1, 1), done().control({kPagedResultsOid, false, GetParam().value}));

    const auto calls = fetch(2);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::ok));
    EXPECT_THAT(dnsOf(calls.at(0).entries), ElementsAre("cn=1"));
}

INSTANTIATE_TEST_SUITE_P(PagedSearch, MalformedPageControl,
    ::testing::Values(BrokenValue{"None", std::nullopt}, BrokenValue{"Empty", Bytes()},
        BrokenValue{"NoBer", Bytes("no BER at all")}, BrokenValue{"TagAlone", Bytes("\x30")},
        BrokenValue{"BreaksOff", Bytes("\x30\x05\x02\x01", 4)},
        BrokenValue{"EmptySequence", tlv(kSequence, "")},
        BrokenValue{"WithoutCookie", tlv(kSequence, berNumber(0))},
        BrokenValue{"LengthOfFourGigabytes", Bytes("\x30\x84\xff\xff\xff\xff", 6)}),
    ::testing::PrintToStringParamName());

/// The end of a search whose list of controls can't be read: its only one has no OID.
Steps doneWithBrokenControls()
{
    return Step{Step::Send{[](const Request& request) {
        const Bytes controls = tlv(kControls, tlv(kSequence, ""));
        const Bytes end = done().operation(request);
        return std::vector{tlv(kSequence, berNumber(request.messageId) + end + controls)};
    }}};
}

TEST_F(PagedSearch, FailsAFullPageWithMalformedControlsWithoutEntries)
{
    server.expectSearch().answer(entries(1, 2), doneWithBrokenControls());

    const auto calls = fetch(2);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::connectError));
    EXPECT_THAT(calls.at(0).entries, IsEmpty());
}

TEST_F(PagedSearch, DeliversAShortPageWithMalformedControls)
{
    server.expectSearch().answer(entries(1, 1), doneWithBrokenControls());

    const auto calls = fetch(2);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::ok));
    EXPECT_THAT(dnsOf(calls.at(0).entries), ElementsAre("cn=1"));
}

class PageCookie : public ScriptedSessionTest, public ::testing::WithParamInterface<Bytes>
{};

TEST_P(PageCookie, ComesBackUnchanged)
{
    server.expectSearch().paged(2, "").answer(entries(1, 2), done().page(GetParam()));
    server.expectSearch().paged(2, GetParam()).answer(done());

    EXPECT_THAT(resultsOf(fetch(2)), ElementsAre(Result::moreResults, Result::ok));
}

INSTANTIATE_TEST_SUITE_P(PagedSearch, PageCookie,
    ::testing::Values(Bytes("c"), Bytes("\0", 1), Bytes("\0a\0\0b\0", 6), Bytes("\xff\xfe\x80", 3),
        Bytes(1024, 'k'), Bytes(1024, '\0'), Bytes(65536, 'K')),
    [](const auto& tested) {
        return std::to_string(tested.index) + "of" + std::to_string(tested.param.size()) + "bytes";
    });

TEST_F(PagedSearch, EndsAtAnExactPageWithAnEmptyCookie)
{
    server.expectSearch().answer(entries(1, 2), done().page(""));

    const auto calls = fetch(2);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::ok));
    EXPECT_THAT(calls.at(0).entries, SizeIs(2));
}

TEST_F(PagedSearch, GoesOnAfterAnExactPageWithALiveCookieToAnEmptyPage)
{
    server.expectSearch().paged(2, "").answer(entries(1, 2), done().page("more?"));
    server.expectSearch().paged(2, "more?").answer(done().page(""));

    const auto calls = fetch(2);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::moreResults, Result::ok));
    EXPECT_THAT(calls.at(0).entries, SizeIs(2));
    EXPECT_THAT(calls.at(1).entries, IsEmpty());
}

TEST_F(PagedSearch, EndsAtAShortPageEvenWithALiveCookieAndWarns)
{
    const LogCapture log;
    server.expectSearch().answer(entries(1, 3), done().page("more"));
    server.expectSearch().answer(entries(4, 1), done().page("there is more"));
    HandlerCalls calls;

    session.asyncSearch({QStringLiteral("dc=x"), QStringLiteral("(cn=*)"), {}, ldap::SearchScope::subtree},
        calls.handler(), 3);

    const auto all = calls.waitForEnd();
    EXPECT_THAT(resultsOf(all), ElementsAre(Result::moreResults, Result::ok));
    EXPECT_THAT(dnsOf(all.at(1).entries), ElementsAre("cn=4"));
    EXPECT_THAT(server.requests(), SizeIs(2));
    EXPECT_THAT(log.texts(log::Level::warning),
        ElementsAre("Entries are missing: the server says that it has more, but page 2 is shorter than the 3 "
                    "entries asked for, which ends the search below [dc=x] with filter [(cn=*)]; 4 entries "
                    "were received. Ask for pages no larger than the server's limit, or raise that limit."));
}

TEST_F(PagedSearch, WarnsWhenAHandlersErrorWithoutACodeEndsItAsSuccess)
{
    const LogCapture log;
    server.expectSearch().answer(entries(1, 3), done().page("more"));
    HandlerCalls calls;

    session.asyncSearch(
        below("dc=x"),
        [&](Result result, std::vector<ldap::SearchEntry> page) {
            calls.add(result, std::move(page));
            if (result == Result::moreResults)
                throw ldap::BaseError(0, QStringLiteral("handler"), 0);
        },
        3);

    const auto all = calls.waitForEnd();
    EXPECT_THAT(resultsOf(all), ElementsAre(Result::moreResults, Result::ok));
    EXPECT_THAT(all.at(1).entries, IsEmpty());
    EXPECT_THAT(log.texts(log::Level::warning),
        ElementsAre("Entries are missing: an error without a code on page 1, which reads as a success, ends "
                    "the search below [dc=x] with filter []; 3 entries were received: handler: Success"));
}

TEST_F(PagedSearch, RateLimitsTheWarningAboutSearchesCutShort)
{
    const LogCapture log;
    server.otherwise([](const Request&) -> Steps { return {entries(1, 1), done().page("there is more")}; });
    // What came before in this process ends with a period of no length.
    log::setReducerConfig({.period = std::chrono::milliseconds(0), .limit = 3});
    fetch(2);
    log::setReducerConfig({.period = std::chrono::hours(1), .limit = 3});

    for (int i = 0; i < 4; ++i)
        fetch(2);

    EXPECT_THAT(log.texts(log::Level::warning),
        ElementsAre(StartsWith("Entries are missing"), StartsWith("Entries are missing"),
            StartsWith("TOO MANY SIMILAR MESSAGES: Entries are missing")));
    EXPECT_THAT(log.texts(log::Level::debug), Contains(StartsWith("Entries are missing")).Times(2));
}

TEST_F(PagedSearch, EndsAtAFullPageWithoutPageControlAndWarns)
{
    const LogCapture log;
    server.expectSearch().answer(entries(1, 2), done());

    const auto calls = fetch(2);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::ok));
    EXPECT_THAT(calls.at(0).entries, SizeIs(2));
    EXPECT_THAT(log.texts(log::Level::warning), ElementsAre(HasSubstr("Entries may be missing")));
}

TEST_F(PagedSearch, DeliversEverythingFromAServerThatIgnoresThePageSize)
{
    const LogCapture log;
    server.expectSearch().paged(2, "").answer(entries(1, 7), done().page("more"));
    server.expectSearch().paged(2, "more").answer(entries(8, 5), done().page(""));

    const auto calls = fetch(2);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::moreResults, Result::ok));
    EXPECT_THAT(calls.at(0).entries, SizeIs(7));
    EXPECT_THAT(calls.at(1).entries, SizeIs(5));
    EXPECT_THAT(log.texts(log::Level::warning), IsEmpty());
}

TEST_F(PagedSearch, GoesOnWithAnEndlessCookieUntilItsHandlerStopsIt)
{
    constexpr std::size_t kPages = 50;
    server.otherwise([](const Request&) -> Steps { return {entries(1, 2), done().page("for ever")}; });
    HandlerCalls calls;
    std::atomic<ldap::SearchContext*> context = nullptr;
    const Gate started;
    context = session.asyncSearch(
        below("dc=x"),
        [&](Result result, std::vector<ldap::SearchEntry> page) {
            calls.add(result, std::move(page));
            started.wait("the start to return");
            if (calls.count() == kPages)
                context.load()->stopAsyncSearch();
        },
        2);
    started.open();

    const auto all = calls.waitForEnd();

    ASSERT_THAT(all, SizeIs(kPages + 1));
    EXPECT_EQ(all.back().result, Result::cancelled);
    EXPECT_THAT(all.back().entries, IsEmpty());
    // The page after the stop is not even asked for: the next request comes from another search.
    EXPECT_EQ(resultsOf(fetch(100)), std::vector{Result::ok});
    EXPECT_THAT(server.requests(), SizeIs(kPages + 1));
}

TEST_F(PagedSearch, IsStoppedByAnotherThreadWhileTheServerIsSilent)
{
    const Gate goOn;
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    server.expectSearch().answer(waitFor(goOn), entries(3, 2), done().page("more"));
    HandlerCalls calls;
    ldap::SearchContext* context = session.asyncSearch(below("dc=x"), calls.handler(), 2);
    server.waitForRequests(2);

    context->stopAsyncSearch();

    EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::moreResults, Result::cancelled));
    goOn.open();
}

TEST_F(PagedSearch, LeavesItsTurnToTheNextOnceItIsForgotten)
{
    const Gate goOn;
    server.expectSearch().paged(2, "").answer(waitFor(goOn), entries(1, 2), done().page("more"));
    server.expectSearch().paged(3, "").answer(done());
    // When nobody else is left, the forgotten one goes on.
    server.otherwise([](const Request&) { return done(); });
    HandlerCalls forgotten;
    HandlerCalls next;
    ldap::SearchContext* context = session.asyncSearch(below("dc=x"), forgotten.handler(), 2);
    server.waitForRequests(1);
    session.asyncSearch(below("dc=x"), next.handler(), 3);

    session.stopAsyncSearch(context);
    goOn.open();

    EXPECT_THAT(resultsOf(next.waitForEnd()), ElementsAre(Result::ok));
    EXPECT_EQ(forgotten.count(), 0U);
}

TEST_F(PagedSearch, MayThrowInItsLastCallWhenItsSessionGoes)
{
    const Gate end;
    server.expectSearch().answer(waitFor(end), done());
    const LogCapture log;
    {
        ldap::Session going(urlOf(server), false, false);
        going.asyncSearch(
            below("dc=x"), [](Result, const auto&) { throw std::runtime_error("not in the mood"); }, 2);
        going.asyncSearch(
            below("dc=x"), [](Result, const auto&) { throw 42; }, 2);
        server.waitForRequests(1);
    }
    end.open();

    EXPECT_THAT(log.texts(log::Level::warning),
        UnorderedElementsAre("The handler of a cancelled search threw an exception: not in the mood",
            "The handler of a cancelled search threw something that is no exception"));
}

TEST_F(PagedSearch, CallsNobodyOnceItIsForgotten)
{
    const Gate goOn;
    const Gate answered;
    server.expectSearch().answer(waitFor(goOn), entries(1, 2), done().page(""), opens(answered));
    HandlerCalls calls;
    ldap::SearchContext* context = session.asyncSearch(below("dc=x"), calls.handler(), 2);
    server.waitForRequests(1);
    session.stopAsyncSearch(context);
    goOn.open();
    answered.wait("the answer");

    // On the same connection, this search's answer comes after the forgotten one's.
    server.expectSearch().answer(done());
    EXPECT_EQ(resultsOf(fetch(2)), std::vector{Result::ok});
    EXPECT_EQ(calls.count(), 0U);
}

TEST_F(PagedSearch, OmitsAnUnreadableEntryWhichMayMakeThePageShort)
{
    const auto unreadable = rawOperation(Answer::searchEntry, "no BER");
    server.expectSearch().answer(entries(1, 1), unreadable, entries(2, 1), done().page("there is more"));

    const auto calls = fetch(3);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::ok));
    EXPECT_THAT(dnsOf(calls.at(0).entries), ElementsAre("cn=1", "cn=2"));
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(PagedSearch, GoesOnWhenThePageIsFullWithoutItsUnreadableEntry)
{
    const auto unreadable = rawOperation(Answer::searchEntry, "no BER");
    server.expectSearch().answer(entries(1, 1), unreadable, entries(2, 1), done().page("more"));
    server.expectSearch().paged(2, "more").answer(done());

    EXPECT_THAT(resultsOf(fetch(2)), ElementsAre(Result::moreResults, Result::ok));
}

TEST_F(PagedSearch, ReturnsOnlyTheErrorWhenALaterPageFails)
{
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    server.expectSearch().answer(entries(3, 1), done(4).diagnostic("enough"));

    const auto outcome = session.search(below("dc=x"), 2);

    EXPECT_EQ(std::get<Result>(outcome), Result::sizeLimitExceeded);
}

TEST_F(PagedSearch, HandsOverNoEntriesWithAnError)
{
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    server.expectSearch().answer(entries(3, 2), done(50).page("more"));

    const auto calls = fetch(2);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::moreResults, Result::connectError));
    EXPECT_THAT(calls.at(1).entries, IsEmpty());
}

TEST_F(PagedSearch, AcceptsAnswersHoweverTheyAreSplitIntoPackets)
{
    const Gate goOn;
    const Steps page{entries(1, 2), done().page("more")};
    server.expectSearch().answer(inSegments(40, page));
    server.expectSearch().answer(together(page));
    server.expectSearch().answer(splitAt(1, goOn, page));
    server.expectSearch().answer(done());
    HandlerCalls calls;
    session.asyncSearch(below("dc=x"), calls.handler(), 2);
    calls.waitForCalls(2);
    server.waitForRequests(3);
    goOn.open();

    const auto all = calls.waitForEnd();

    EXPECT_THAT(resultsOf(all),
        ElementsAre(Result::moreResults, Result::moreResults, Result::moreResults, Result::ok));
    EXPECT_THAT(dnsOf(all.at(0).entries), ElementsAre("cn=1", "cn=2"));
    EXPECT_THAT(dnsOf(all.at(2).entries), ElementsAre("cn=1", "cn=2"));
}

TEST_F(PagedSearch, TranslatesEveryResultCodeByTheSameTable)
{
    std::vector<int> codes{124, 128, 255, 256, 4096, 16654, 65535, 2147483647};
    for (int code = 0; code <= 123; ++code)
        codes.push_back(code);
    server.otherwise([](const Request& request) -> Steps {
        return done(std::stoi(request.as<SearchRequest>().base.substr(3)));
    });

    for (const int code : codes) {
        const auto outcome = session.search(below("dc=" + std::to_string(code)), 10);
        const bool ended = std::holds_alternative<Result>(outcome);
        EXPECT_EQ(ended ? std::get<Result>(outcome) : Result::ok, ldap::translateErrorCode(code)) << code;
    }
}

TEST_F(PagedSearch, DistinguishesTheCodesThatACallerActsOn)
{
    const std::vector<std::pair<int, Result>> expected{{4, Result::sizeLimitExceeded},
        {32, Result::noSuchObject}, {49, Result::invalidCredentials}, {3, Result::connectError},
        {10, Result::connectError}, {12, Result::connectError}, {50, Result::connectError},
        {53, Result::connectError}};
    for (const auto& [code, result] : expected) {
        server.expectSearch().answer(done(code));
        EXPECT_EQ(resultOf(session), result) << code;
    }
}

} // namespace

} // namespace tavo::test
