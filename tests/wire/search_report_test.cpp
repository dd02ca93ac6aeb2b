#include "scripted_session_test.h"
#include "support/gate.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"
#include <ldap/error.h>
#include <ldap/search_report.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <memory>
#include <string>
#include <vector>

namespace tavo::test {

namespace {

using ldap::BaseError;
using ldap::Completeness;
using ldap::Result;
using ldap::SearchReport;
using Loss = ldap::SearchReport::Loss;

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// An entry whose DN no client can read.
RawOperation unreadableEntry() { return rawOperation(Answer::searchEntry, "no BER"); }

/// Searches of which a report is asked for.
class ReportedSearch : public ScriptedSessionTest
{
protected:
    ldap::SearchParams params(Completeness completeness = Completeness::asReported) const
    {
        ldap::SearchParams asked = below("dc=x");
        asked.completeness = completeness;
        asked.report = report;
        return asked;
    }

    std::vector<HandlerCalls::Call> fetch(int pageSize, Completeness completeness = Completeness::asReported)
    {
        HandlerCalls calls;
        session.asyncSearch(params(completeness), calls.handler(), pageSize);
        return calls.waitForEnd();
    }

    const std::shared_ptr<SearchReport> report = std::make_shared<SearchReport>();
};

/// What a server may send that cuts a list without an error, with the entries that are received.
struct Cut
{
    const char* name;
    Loss loss;
    Steps answer;
    std::size_t entries;
};

void PrintTo(const Cut& cut, std::ostream* out) { *out << cut.name; }

template <class... Each>
Steps steps(const Each&... each)
{
    Steps all;
    (all.append(each), ...);
    return all;
}

std::vector<Cut> cuts()
{
    return {
        {"ShortPage", Loss::shortPage, steps(entries(1, 1), done().page("more")), 1},
        {"NoPageControl", Loss::unreadablePageControl, steps(entries(1, 2), done()), 2},
        {"MalformedPageControl", Loss::unreadablePageControl,
            steps(entries(1, 1), done().control({kPagedResultsOid, false, "x"})), 1},
        {"UnreadableEntry", Loss::unreadableEntry, steps(entries(1, 1), unreadableEntry(), done().page("")),
            1},
        {"UnreadableEntryInAFullPage", Loss::unreadableEntry,
            steps(entries(1, 2), unreadableEntry(), done().page("more")), 2},
    };
}

class CutList : public ReportedSearch, public ::testing::WithParamInterface<Cut>
{
protected:
    /// A first page that is whole, then the cut.
    void expectPages()
    {
        server.expectSearch().paged(2, "").answer(entries(8, 2), done().page("a"));
        server.expectSearch().paged(2, "a").answer(GetParam().answer);
    }
};

TEST_P(CutList, FailsWhereItMustBeComplete)
{
    expectPages();

    const auto calls = fetch(2, Completeness::required);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::moreResults, Result::sizeLimitExceeded));
    EXPECT_THAT(calls.back().entries, IsEmpty());
    EXPECT_EQ(report->ldapCode, LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(report->loss, GetParam().loss);
    EXPECT_FALSE(report->lossDetail.isEmpty());
}

TEST_P(CutList, IsReportedWhereItNeedNotBeComplete)
{
    expectPages();
    if (GetParam().entries == 2 && GetParam().loss == Loss::unreadableEntry)
        server.expectSearch().paged(2, "more").answer(done().page(""));

    const auto calls = fetch(2);

    EXPECT_EQ(calls.back().result, Result::ok);
    EXPECT_THAT(calls.at(1).entries, SizeIs(GetParam().entries));
    EXPECT_EQ(report->ldapCode, LDAP_SUCCESS);
    EXPECT_TRUE(report->isIncomplete());
    EXPECT_EQ(report->loss, GetParam().loss);
}

TEST_P(CutList, FailsABlockingSearchThatMustBeComplete)
{
    expectPages();

    const auto outcome = session.search(params(Completeness::required), 2);

    EXPECT_EQ(std::get<Result>(outcome), Result::sizeLimitExceeded);
    EXPECT_EQ(report->loss, GetParam().loss);
}

INSTANTIATE_TEST_SUITE_P(EachCut, CutList, ::testing::ValuesIn(cuts()),
    [](const auto& cut) { return std::string(cut.param.name); });

TEST_F(ReportedSearch, FindsNothingMissingInAWholeListWithReferences)
{
    server.expectSearch().answer(entries(1, 2), done().page("a"));
    server.expectSearch().answer(entries(3, 1), reference({"ldap://other/dc=y"}), done().page(""));
    report->loss = Loss::shortPage;
    report->ldapCode = LDAP_BUSY;

    const auto calls = fetch(2, Completeness::required);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::moreResults, Result::ok));
    EXPECT_EQ(report->ldapCode, LDAP_SUCCESS);
    EXPECT_FALSE(report->isIncomplete());
    EXPECT_EQ(report->lossDetail, QString());
}

TEST_F(ReportedSearch, HasTheServersWordsBeforeTheFinalCallBegins)
{
    server.expectSearch().answer(done(LDAP_NO_SUCH_OBJECT).matched("dc=x").diagnostic("no ou here"));
    Gate ended;
    SearchReport seen;

    session.asyncSearch(
        params(),
        [&, ended](Result result, std::vector<ldap::SearchEntry>) {
            EXPECT_EQ(result, Result::noSuchObject);
            seen = *report;
            ended.open();
        },
        2);
    ended.wait("the end of the search");

    EXPECT_EQ(seen.ldapCode, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(seen.matchedDn, "dc=x"_s);
    EXPECT_EQ(seen.serverMessage, "no ou here"_s);
    EXPECT_FALSE(seen.isIncomplete());
}

TEST_F(ReportedSearch, TellsALostConnectionByItsCode)
{
    server.expectSearch().answer(closeConnection());

    EXPECT_THAT(resultsOf(fetch(2)), ElementsAre(Result::connectError));

    EXPECT_EQ(report->ldapCode, LDAP_SERVER_DOWN);
    EXPECT_EQ(report->serverMessage, QString());
}

TEST_F(ReportedSearch, FailsWhenAHandlersErrorWithoutACodeCutsIt)
{
    for (const Completeness completeness : {Completeness::required, Completeness::asReported}) {
        server.expectSearch().answer(entries(1, 2), done().page("a"));
        Gate ended;
        Result last = Result::moreResults;

        session.asyncSearch(
            params(completeness),
            [&last, ended](Result result, std::vector<ldap::SearchEntry>) {
                if (result == Result::moreResults)
                    throw BaseError(LDAP_SUCCESS, "of the handler"_s, 0);
                last = result;
                ended.open();
            },
            2);
        ended.wait("the end of the search");

        EXPECT_EQ(last, completeness == Completeness::required ? Result::sizeLimitExceeded : Result::ok);
        EXPECT_EQ(report->loss, Loss::handlerError);
    }
}

TEST_F(ReportedSearch, SaysCancelledWhateverTheSearchReadsAfterwards)
{
    const Gate mayAnswer;
    server.expectSearch().answer(waitFor(mayAnswer), entries(1, 1), done().page(""));
    HandlerCalls calls;
    {
        ldap::Session other(urlOf(server), false, false);
        other.asyncSearch(params(), calls.handler(), 2);
        server.waitForRequests(1);
    }
    EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::cancelled));
    EXPECT_EQ(report->ldapCode, LDAP_USER_CANCELLED);

    mayAnswer.open();
    server.waitForClose(0);

    EXPECT_EQ(report->ldapCode, LDAP_USER_CANCELLED);
}

TEST_F(ReportedSearch, LeavesTheReportAloneWhenItIsDetached)
{
    const Gate mayAnswer;
    server.expectSearch().answer(waitFor(mayAnswer), entries(1, 1), done().page(""));
    report->ldapCode = LDAP_BUSY;
    UncalledHandler uncalled;
    ldap::SearchContext* const detached = session.asyncSearch(params(), uncalled.handler(), 2);
    server.waitForRequests(1);
    session.stopAsyncSearch(detached);
    server.expectSearch().answer(done());
    mayAnswer.open();

    EXPECT_EQ(resultOf(session), Result::ok) << "the search behind it";

    EXPECT_EQ(report->ldapCode, LDAP_BUSY);
}

TEST_F(ReportedSearch, ReadsNoRefusedStartAsACompleteList)
{
    const auto calls = fetch(0, Completeness::required);

    EXPECT_NE(calls.back().result, Result::ok);
    EXPECT_TRUE(report->isIncomplete());
}

TEST_F(ReportedSearch, ReadsNoSecondStartAsACompleteListNorItsReport)
{
    const Gate mayAnswer;
    server.expectSearch().answer(waitFor(mayAnswer), done(LDAP_BUSY));
    const std::shared_ptr<ldap::SearchContext> context =
        session.createSearchContext(params(Completeness::required));
    HandlerCalls first;
    HandlerCalls second;
    HandlerCalls third;
    context->asyncSearch(first.handler(), 2);
    server.waitForRequests(1);

    context->asyncSearch(second.handler(), 2);
    context->asyncSearch(third.handler(), 0);

    EXPECT_THAT(resultsOf(second.waitForEnd()), ElementsAre(Result::sizeLimitExceeded));
    EXPECT_THAT(resultsOf(third.waitForEnd()), ElementsAre(Result::sizeLimitExceeded));
    EXPECT_EQ(report->loss, Loss::none) << "the report is the first search's";
    mayAnswer.open();
    first.waitForEnd();
    EXPECT_EQ(report->ldapCode, LDAP_BUSY);
}

/// What a host may hang on a report: it ends with it.
struct Job
{
    std::unique_ptr<ldap::Session> session;
    SearchReport report;
};

TEST_F(ReportedSearch, MayOwnTheSessionByItsReport)
{
    const Gate mayAnswer;
    server.expectSearch().answer(waitFor(mayAnswer), done());
    const Gate isGone;
    {
        auto job = std::shared_ptr<Job>(new Job, [isGone](Job* owned) {
            delete owned;
            isGone.open();
        });
        job->session = std::make_unique<ldap::Session>(urlOf(server), false, false);
        ldap::SearchParams asked = below("dc=x");
        asked.report = std::shared_ptr<SearchReport>(job, &job->report);
        const std::shared_ptr<ldap::SearchContext> context = job->session->createSearchContext(asked);
        context->asyncSearch([](Result, std::vector<ldap::SearchEntry>) {}, 2);
        server.waitForRequests(1);
    }
    mayAnswer.open();
    isGone.wait("the search's thread, the last owner, destroys the session");
}

TEST_F(ReportedSearch, LosesNoRangedValuesByTheCaseOfAName)
{
    server.expectSearch().answer(
        entry("cn=g").attr("member", std::vector<Bytes>()).attr("member;range=0-0", "a"), done().page(""));
    server.expectSearch().answer(entry("cn=g").attr("member;range=1-*", "b"), done());
    ldap::SearchParams asked = params(Completeness::required);
    asked.attributes = {"Member"};
    asked.rangedAttributes = {"member"};

    const auto found = std::get<1>(session.search(asked, 2));

    EXPECT_THAT(found.at(0).getAttribute("Member"_s).values, SizeIs(2));
}

TEST_F(ReportedSearch, LeavesNoRangeAmongAllAttributes)
{
    server.expectSearch().answer(
        entry("cn=g").attr("member", std::vector<Bytes>()).attr("member;range=0-0", "a").attr("mail", "m"),
        done().page(""));
    server.expectSearch().answer(entry("cn=g").attr("member;range=1-*", "b"), done());
    ldap::SearchParams asked = params(Completeness::required);
    asked.attributes = {};
    asked.rangedAttributes = {"member"};

    const auto found = std::get<1>(session.search(asked, 2));

    ASSERT_THAT(found.at(0).attributes, SizeIs(2));
    EXPECT_EQ(found[0].attributes[0].toString(), "member: { a, b }"_s);
    EXPECT_EQ(found[0].attributes[1].toString(), "mail: m"_s);
}

TEST_F(ReportedSearch, SaysCancelledWhenItsContextIsStopped)
{
    server.expectSearch();
    HandlerCalls calls;
    const std::shared_ptr<ldap::SearchContext> context = session.createSearchContext(params());
    context->asyncSearch(calls.handler(), 2);
    server.waitForRequests(1);

    context->stopAsyncSearch();

    EXPECT_THAT(resultsOf(calls.waitForEnd()), ElementsAre(Result::cancelled));
    EXPECT_EQ(report->ldapCode, LDAP_USER_CANCELLED);
}

TEST_F(ReportedSearch, ThrowsFromAnUnpagedOneThatMustBeComplete)
{
    server.expectSearch().answer(entries(1, 1), unreadableEntry(), done());
    try {
        session.simpleSearch(params(Completeness::required));
        FAIL() << "an entry was lost quietly";
    } catch (const BaseError& error) {
        EXPECT_EQ(error.ldapCode, LDAP_SIZELIMIT_EXCEEDED);
    }
    EXPECT_EQ(report->ldapCode, LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(report->loss, Loss::unreadableEntry);
}

TEST_F(ReportedSearch, TellsOfAnUnpagedOne)
{
    server.expectSearch().answer(entries(1, 1), unreadableEntry(), done());
    EXPECT_THAT(session.simpleSearch(params()), SizeIs(1));
    EXPECT_EQ(report->ldapCode, LDAP_SUCCESS);
    EXPECT_EQ(report->loss, Loss::unreadableEntry);

    server.expectSearch().answer(done(LDAP_BUSY).matched("dc=y").diagnostic("later"));
    EXPECT_THROW(session.simpleSearch(params()), BaseError);
    EXPECT_EQ(report->ldapCode, LDAP_BUSY);
    EXPECT_EQ(report->serverMessage, "later"_s);
    EXPECT_EQ(report->matchedDn, "dc=y"_s);
    EXPECT_FALSE(report->isIncomplete());
}

} // namespace

} // namespace tavo::test
