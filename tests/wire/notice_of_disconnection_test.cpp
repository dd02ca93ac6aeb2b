#include "scripted_session_test.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// libldap loses the message and its texts when it reads such a notice. A program of its own, so that nothing
// else that a search may lose goes unseen for it.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions();

const char* __lsan_default_suppressions() { return "leak:ldap_result\n"; }

namespace tavo::test {

namespace {

using ldap::Result;
using ::testing::ElementsAre;

class NoticeOfDisconnection : public ScriptedSessionTest
{
protected:
    const Steps notice{noticeOfDisconnection(52, "going down"), closeConnection()};
};

TEST_F(NoticeOfDisconnection, EndsAPagedSearchWithAConnectErrorAfterThePagesBefore)
{
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    server.expectSearch().answer(entries(3, 1), notice);

    EXPECT_THAT(resultsOf(fetch(2)), ElementsAre(Result::moreResults, Result::connectError));
}

TEST_F(NoticeOfDisconnection, EndsASearchThatHasHadNoAnswer)
{
    server.expectSearch().answer(notice);

    EXPECT_EQ(resultOf(session), Result::connectError);
}

TEST_F(NoticeOfDisconnection, MakesASearchWithoutPagingThrow)
{
    server.expectSearch().answer(notice);

    EXPECT_THROW(session.simpleSearch(below("dc=x")), ldap::BaseError);
}

TEST_F(NoticeOfDisconnection, MakesABindThrow)
{
    server.expectBind().answer(notice);

    EXPECT_THROW(session.bind(QStringLiteral("cn=a"), QStringLiteral("b")), ldap::BaseError);
}

TEST_F(NoticeOfDisconnection, IsTheOnlyNoticeThatEndsAnything)
{
    const auto other = ResultMessage(0, Answer::extendedResponse).messageId(0).responseName("1.2.3");
    server.expectBind().answer(other, success());
    server.expectSearch().answer(together({entry("cn=a"), other, entry("cn=b"), done()}));

    session.bind(QStringLiteral("cn=a"), QStringLiteral("b"));
    EXPECT_EQ(session.simpleSearch(below("dc=x")).size(), 2U);
}

TEST_F(NoticeOfDisconnection, LeavesTheVendorUnknown)
{
    server.expectSearch().answer(notice);

    EXPECT_EQ(utf8(session.detectLdapVendor().loginAttribute), "uid");
}

} // namespace

} // namespace tavo::test
