#include "scripted_session_test.h"
#include "support/gate.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"
#include <ldap/manager.h>
#include <ldap/search_report.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace tavo::test {

namespace {

using ldap::Completeness;
using ldap::Group;
using ldap::Result;
using ldap::SearchReport;

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int kActiveDirectorysStep = 1500;

/// The members number `first` to `last`.
std::vector<Bytes> members(int first, int last)
{
    std::vector<Bytes> values;
    for (int i = first; i <= last; ++i)
        values.push_back("cn=" + std::to_string(i));
    return values;
}

std::string rangeName(int first, const std::string& last)
{
    return "member;range=" + std::to_string(first) + "-" + last;
}

/// What a server with groups of this size sends for the members from `first` on, `step` at most.
Entry membersFrom(int first, int size, int step, const Bytes& dn = "cn=big")
{
    Entry answer = entry(dn);
    if (size <= step && first == 0)
        return size == 0 ? answer : answer.attr("member", members(0, size - 1));
    if (first == 0)
        answer.attr("member", std::vector<Bytes>());
    const int end = std::min(first + step, size);
    return answer.attr(
        rangeName(first, end == size ? "*" : std::to_string(end - 1)), members(first, end - 1));
}

/// Fetches groups from an Active Directory, pages of two.
class MemberRanges : public ::testing::Test
{
protected:
    MemberRanges()
    {
        server.expectSearch().answer(entry("").attr("forestFunctionality", "7"), done());
        server.expectBind().answer(success());
        ldap::Settings settings;
        settings.uri = utils::Url(QString::fromStdString(server.url()));
        settings.searchPageSize = 2;
        manager = ldap::createManagerOrThrow(settings);
    }

    struct Outcome
    {
        Result result = Result::moreResults;
        std::vector<Group> groups;
    };

    Outcome fetch(Completeness completeness = Completeness::asReported)
    {
        Outcome outcome;
        const Gate ended;
        manager->fetchGroupsAsync(
            [&outcome, ended](Result result, std::vector<Group> page) {
                outcome.result = result;
                std::move(page.begin(), page.end(), std::back_inserter(outcome.groups));
                if (result != Result::moreResults)
                    ended.open();
            },
            {"dc=x"_s, {}}, completeness, report);
        ended.wait("the end of the fetch");
        return outcome;
    }

    /// Expects the question for the members of cn=big from `first` on.
    template <class... Each>
    void expectRange(int first, const Each&... answer)
    {
        server.expectSearch()
            .base("cn=big")
            .scope(0)
            .filter("(objectclass=*)")
            .attributes({rangeName(first, "*")})
            .noControls()
            .answer(answer...);
    }

    void expectFailure(Result expected, int code)
    {
        const Outcome outcome = fetch();
        EXPECT_EQ(outcome.result, expected);
        EXPECT_THAT(outcome.groups, IsEmpty());
        EXPECT_EQ(report->ldapCode, code);
    }

    ScriptedServer server;
    std::unique_ptr<ldap::Manager> manager;
    const std::shared_ptr<SearchReport> report = std::make_shared<SearchReport>();

private:
    UnthinnedLog m_unthinned;
};

class GroupOfAnySize : public MemberRanges, public ::testing::WithParamInterface<int>
{};

TEST_P(GroupOfAnySize, IsWholeAndInTheServersOrder)
{
    const int size = GetParam();
    server.expectSearch()
        .filter("(objectClass=group)")
        .attributes({"member"})
        .paged(2, "")
        .answer(membersFrom(0, size, kActiveDirectorysStep), done().page(""));
    for (int first = kActiveDirectorysStep; first < size; first += kActiveDirectorysStep)
        expectRange(first, membersFrom(first, size, kActiveDirectorysStep), done());

    const Outcome outcome = fetch(Completeness::required);

    EXPECT_EQ(outcome.result, Result::ok);
    ASSERT_THAT(outcome.groups, SizeIs(1));
    std::vector<std::string> found;
    for (const QString& member : outcome.groups[0].members)
        found.push_back(utf8(member));
    EXPECT_EQ(found, members(0, size - 1));
    EXPECT_FALSE(report->isIncomplete());
}

INSTANTIATE_TEST_SUITE_P(
    AroundTheServersStep, GroupOfAnySize, ::testing::Values(0, 1, 1499, 1500, 1501, 3000, 10'000));

TEST_F(MemberRanges, FollowWhateverStepTheServerTakes)
{
    server.expectSearch().answer(
        entry("cn=big").attr("MEMBER", std::vector<Bytes>()).attr("Member;Range=0-1", members(0, 1)),
        done().page(""));
    expectRange(2, entry("cn=big").attr("member;range=2-2", members(2, 2)), done());
    expectRange(3, entry("cn=big").attr("member;range=3-7", members(3, 7)), done());
    expectRange(8, entry("cn=big").attr("member;range=8-*", members(8, 8)), done());

    EXPECT_THAT(fetch().groups.at(0).members, SizeIs(9));
}

TEST_F(MemberRanges, KeepEqualValuesAndDropAnOverlapByItsNumbers)
{
    server.expectSearch().answer(
        entry("cn=big").attr("member;range=0-2", {"cn=a", "cn=a", "cn=b"}), done().page(""));
    expectRange(3, entry("cn=big").attr("member;range=2-*", {"cn=b", "cn=a"}), done());

    EXPECT_THAT(fetch().groups.at(0).members, ElementsAre("cn=a"_s, "cn=a"_s, "cn=b"_s, "cn=a"_s));
}

TEST_F(MemberRanges, AreReadForEachGroupOfEachPage)
{
    server.expectSearch().paged(2, "").answer(
        entry("cn=small").attr("member", "cn=0"), membersFrom(0, 5, 3), done().page("more"));
    expectRange(3, membersFrom(3, 5, 3), done());
    server.expectSearch().paged(2, "more").answer(membersFrom(0, 4, 3), done().page(""));
    expectRange(3, membersFrom(3, 4, 3), done());

    const Outcome outcome = fetch();

    EXPECT_EQ(outcome.result, Result::ok);
    ASSERT_THAT(outcome.groups, SizeIs(3));
    EXPECT_THAT(outcome.groups[0].members, SizeIs(1));
    EXPECT_THAT(outcome.groups[1].members, SizeIs(5));
    EXPECT_THAT(outcome.groups[2].members, SizeIs(4));
}

TEST_F(MemberRanges, OfAGroupThatVanishesLeaveItOutWithAWarning)
{
    const LogCapture log;
    server.expectSearch().answer(
        membersFrom(0, 5, 3), entry("cn=small").attr("member", "cn=0"), done().page(""));
    expectRange(3, done(LDAP_NO_SUCH_OBJECT));

    const Outcome outcome = fetch();

    EXPECT_EQ(outcome.result, Result::ok);
    ASSERT_THAT(outcome.groups, SizeIs(1));
    EXPECT_EQ(outcome.groups[0].name, "small"_s);
    EXPECT_EQ(report->loss, SearchReport::Loss::vanishedEntry);
    EXPECT_THAT(log.texts(log::Level::warning), Contains(HasSubstr("[cn=big] is left out")));
}

TEST_F(MemberRanges, OfAGroupThatVanishesFailAListThatMustBeComplete)
{
    server.expectSearch().answer(
        membersFrom(0, 5, 3), entry("cn=small").attr("member", "cn=0"), done().page("more"));
    expectRange(3, done(LDAP_NO_SUCH_OBJECT));

    const Outcome outcome = fetch(Completeness::required);

    EXPECT_EQ(outcome.result, Result::sizeLimitExceeded);
    EXPECT_THAT(outcome.groups, IsEmpty());
}

TEST_F(MemberRanges, EndTheFetchByAnyOtherFailure)
{
    server.expectSearch().answer(membersFrom(0, 5, 3), done().page(""));
    expectRange(3, done(LDAP_BUSY).diagnostic("come later"));

    expectFailure(Result::connectError, LDAP_BUSY);
    EXPECT_EQ(report->serverMessage, "come later"_s);
}

TEST_F(MemberRanges, EndTheFetchWhenTheConnectionIsLost)
{
    server.expectSearch().answer(membersFrom(0, 5, 3), done().page(""));
    expectRange(3, closeConnection());

    expectFailure(Result::connectError, LDAP_SERVER_DOWN);
}

/// An answer with which no list can go on.
struct UselessAnswer
{
    const char* name;
    Steps answer;
};

void PrintTo(const UselessAnswer& useless, std::ostream* out) { *out << useless.name; }

std::vector<UselessAnswer> uselessAnswers()
{
    const auto answered = [](const Entry& sent) {
        Steps steps;
        steps.append(sent);
        steps.append(done());
        return steps;
    };
    Steps nothing;
    nothing.append(done());
    return {
        {"NoEntry", nothing},
        {"NoAttribute", answered(entry("cn=big"))},
        {"AWholeAttribute", answered(entry("cn=big").attr("member", members(0, 4)))},
        {"AGap", answered(entry("cn=big").attr("member;range=4-*", members(4, 4)))},
        {"NothingNew", answered(entry("cn=big").attr("member;range=0-2", members(0, 2)))},
        {"NoValues", answered(entry("cn=big").attr("member;range=3-*", std::vector<Bytes>()))},
        {"FewerThanItSays", answered(entry("cn=big").attr("member;range=3-9", members(3, 4)))},
    };
}

class UselessRange : public MemberRanges, public ::testing::WithParamInterface<UselessAnswer>
{};

TEST_P(UselessRange, FailsTheFetch)
{
    server.expectSearch().answer(membersFrom(0, 5, 3), done().page(""));
    expectRange(3, GetParam().answer);

    expectFailure(Result::connectError, LDAP_DECODING_ERROR);
}

INSTANTIATE_TEST_SUITE_P(EachAnswer, UselessRange, ::testing::ValuesIn(uselessAnswers()),
    [](const auto& useless) { return std::string(useless.param.name); });

TEST_F(MemberRanges, ThatNeverEndFailTheFetch)
{
    // The server repeats what it has said, with ever the same step.
    server.expectSearch().answer(membersFrom(0, 5, 3), done().page(""));
    server.otherwise([](const Request&) {
        Steps steps;
        steps.append(entry("cn=big").attr("member;range=0-2", members(0, 2)));
        steps.append(done());
        return steps;
    });

    expectFailure(Result::connectError, LDAP_DECODING_ERROR);
}

TEST_F(MemberRanges, AreNotFollowedOnceTheFetchIsStopped)
{
    const Gate mayAnswer;
    server.expectSearch().answer(membersFrom(0, 9, 3), done().page(""));
    expectRange(3, waitFor(mayAnswer), membersFrom(3, 9, 3), done());
    UncalledHandler uncalled;
    ldap::SearchContext* const stopped = manager->fetchGroupsAsync(uncalled.handler(), {"dc=x"_s, {}});
    server.waitForRequests(4);

    manager->stopAsyncFetch(stopped);
    mayAnswer.open();

    server.expectSearch().base("dc=y").answer(done());
    Gate ended;
    manager->fetchGroupsAsync([ended](Result, std::vector<Group>) { ended.open(); }, {"dc=y"_s, {}});
    ended.wait("the fetch behind it");
    manager.reset();
    server.waitForClose(0);
}

TEST_F(MemberRanges, AreReadWithoutALockThatAStopNeeds)
{
    server.expectSearch().answer(membersFrom(0, 9, 3), done().page(""));
    expectRange(3);
    UncalledHandler uncalled;
    ldap::SearchContext* const stopped = manager->fetchGroupsAsync(uncalled.handler(), {"dc=x"_s, {}});
    server.waitForRequests(4);

    manager->stopAsyncFetch(stopped);

    EXPECT_TRUE(uncalled.isDropped());
}

} // namespace

} // namespace tavo::test
