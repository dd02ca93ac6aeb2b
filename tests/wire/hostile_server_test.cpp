// What would end the process, or count as an answer, if the library let it through.

#include "scripted_session_test.h"
#include "support/qt_printers.h"
#include <ldap/error.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tavo::test {

namespace {

using ldap::BaseError;
using ldap::Result;
using ldap::Session;

using ::testing::ElementsAre;

/// The notice on which the client library aborts.
ResultMessage namelessNotice()
{
    return ResultMessage(52, Answer::extendedResponse).messageId(0).responseName("");
}

/// A notice that says nothing of interest.
ResultMessage harmlessNotice()
{
    return ResultMessage(0, Answer::extendedResponse).messageId(0).responseName("1.2.3");
}

class HostileServer : public ScriptedSessionTest
{
protected:
    static void expectProtocolError(const std::function<void()>& call)
    {
        try {
            call();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const BaseError& error) {
            EXPECT_EQ(error.ldapCode, LDAP_SERVER_DOWN);
            EXPECT_EQ(error.systemError, EPROTO);
        }
    }
};

TEST_F(HostileServer, EndsABindAndNotTheProcess)
{
    server.expectBind().answer(namelessNotice(), success());
    expectProtocolError([&] { session.bind("cn=a"_s, "b"_s); });
    server.waitForClose(0);
}

TEST_F(HostileServer, EndsAnIdentityCheckAndNotTheProcess)
{
    server.expectWhoAmI().answer(namelessNotice(), success());
    expectProtocolError([&] { session.whoAmI(); });
}

TEST_F(HostileServer, EndsASearchWithoutPagingAndNotTheProcess)
{
    server.expectSearch().answer(together({entry("cn=a"), namelessNotice(), done()}));
    expectProtocolError([&] { session.simpleSearch(below("dc=x")); });
}

TEST_F(HostileServer, EndsAPagedSearchAndNotTheProcess)
{
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    server.expectSearch().answer(inSegments(200, {entries(3, 1), namelessNotice(), done()}));
    EXPECT_THAT(resultsOf(fetch(2)), ElementsAre(Result::moreResults, Result::connectError));
}

TEST_F(HostileServer, EndsAnIdentityCheckWhoseAnswerHasAnEmptyName)
{
    server.expectWhoAmI().answer(success().responseName(""));
    expectProtocolError([&] { session.whoAmI(); });
}

TEST_F(HostileServer, EndsAnUpgradeWhoseAnswerHasAnEmptyName)
{
    server.expectStartTls().answer(success().responseName(""));
    expectProtocolError([&] { Session(urlOf(server), true, true); });
}

/// A man in the middle adds to what a server says before TLS begins.
using InjectedAnswers = HostileServer;

TEST_F(InjectedAnswers, EndTheUpgradeWhenTheyComeWithItsAnswer)
{
    for (const Steps& injected :
        std::vector<Steps>{success().messageId(2), ResultMessage(0, Answer::bindResponse).messageId(2),
            entry("cn=a").messageId(2), done().messageId(2), harmlessNotice()}) {
        server.expectStartTls().answer(together({success(), injected}));
        try {
            Session(urlOf(server), true, true);
            ADD_FAILURE() << "nothing was thrown";
        } catch (const BaseError& error) {
            EXPECT_EQ(error.systemError, EPROTO);
        }
    }
}

TEST_F(InjectedAnswers, AreReadByNobodyWhenTheUpgradeIsRefused)
{
    server.expectStartTls().answer(together({ResultMessage(LDAP_UNAVAILABLE, Answer::extendedResponse),
        ResultMessage(0, Answer::bindResponse).messageId(2)}));
    EXPECT_THROW(Session(urlOf(server), true, true), BaseError);
    server.waitForClose(0);
}

} // namespace

} // namespace tavo::test
