#include "scripted_session_test.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <string>
#include <vector>

namespace tavo::test {

namespace {

using ldap::Result;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::SizeIs;

/// LDAP_SERVER_DOWN.
constexpr int kServerDown = -1;

/// What a server answers to a search before, or in place of, a proper end.
struct BrokenAnswer
{
    const char* name;
    Steps steps;
};

void PrintTo(const BrokenAnswer& answer, std::ostream* out) { *out << answer.name; }

class BrokenAnswers : public ScriptedSessionTest, public ::testing::WithParamInterface<BrokenAnswer>
{};

TEST_P(BrokenAnswers, EndAPagedSearchWithAConnectError)
{
    server.expectSearch().answer(GetParam().steps);

    EXPECT_EQ(resultOf(session), Result::connectError);
}

TEST_P(BrokenAnswers, EndALaterPageWithAConnectErrorAfterThePagesBefore)
{
    server.expectSearch().answer(entries(1, 2), done().page("more"));
    server.expectSearch().answer(GetParam().steps);

    const auto calls = fetch(2);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::moreResults, Result::connectError));
    EXPECT_THAT(calls.at(1).entries, SizeIs(0));
}

TEST_P(BrokenAnswers, MakeASearchWithoutPagingThrow)
{
    server.expectSearch().answer(GetParam().steps);

    EXPECT_THROW(session.simpleSearch(below("dc=x")), ldap::BaseError);
}

TEST_P(BrokenAnswers, MakeABindThrow)
{
    server.expectBind().answer(GetParam().steps);

    EXPECT_THROW(session.bind(QStringLiteral("cn=a"), QStringLiteral("b")), ldap::BaseError);
}

TEST_P(BrokenAnswers, LeaveTheVendorUnknown)
{
    server.expectSearch().answer(GetParam().steps);

    EXPECT_EQ(utf8(session.detectLdapVendor().loginAttribute), "uid");
}

INSTANTIATE_TEST_SUITE_P(Wire, BrokenAnswers,
    ::testing::Values(BrokenAnswer{"NothingThenClose", closeConnection()},
        BrokenAnswer{"NothingThenHalfClose", halfClose()},
        BrokenAnswer{"NothingThenReset", resetConnection()},
        BrokenAnswer{"EntryThenClose", {entry("cn=a"), closeConnection()}},
        BrokenAnswer{"EntryThenReset", {entry("cn=a"), resetConnection()}},
        BrokenAnswer{"OtherProtocolThenClose", {raw("HTTP/1.1 400 Bad Request\r\n\r\n"), closeConnection()}},
        BrokenAnswer{"LengthOfQuarterOfAGigabyteThenClose",
            {raw(Bytes("\x30\x84\x10\x00\x00\x00", 6)), closeConnection()}},
        BrokenAnswer{"LengthOfNineBytesThenClose",
            {raw(Bytes("\x30\x89\x01\x02\x03\x04\x05\x06\x07\x08\x09", 11)), closeConnection()}},
        BrokenAnswer{"IndefiniteLengthThenClose", {raw(Bytes("\x30\x80\x02\x01\x01", 5)), closeConnection()}},
        BrokenAnswer{"EmptyMessageThenClose", {raw(Bytes("\x30\x00", 2)), closeConnection()}}),
    ::testing::PrintToStringParamName());

TEST(BrokenOffAnswer, IsAConnectErrorWhereverItBreaksOff)
{
    const auto whole = done().diagnostic("all is well").page("");
    const std::size_t length = whole.encode(Request()).size();
    for (std::size_t cut = 1; cut < length; ++cut) {
        ScriptedServer server;
        server.expectSearch().answer(truncated(cut, whole), closeConnection());
        ldap::Session session(utils::Url(QString::fromStdString(server.url())), false, false);

        EXPECT_EQ(std::get<Result>(session.search(below("dc=x"), 2)), Result::connectError) << cut;
    }
}

using StrangeAnswers = ScriptedSessionTest;

TEST_F(StrangeAnswers, AreIgnoredWhenTheyAnswerNoRequest)
{
    server.expectSearch().answer(
        entry("cn=stranger").messageId(4711), entries(1, 2), done(32).messageId(4712), done().page(""));

    const auto calls = fetch(2);

    EXPECT_THAT(resultsOf(calls), ElementsAre(Result::ok));
    EXPECT_THAT(dnsOf(calls.at(0).entries), ElementsAre("cn=1", "cn=2"));
}

TEST_F(StrangeAnswers, AreIgnoredWhenTheyComeAfterTheEnd)
{
    const Gate sent;
    server.expectSearch().answer(entries(1, 1), done(), entry("cn=late"), done(), opens(sent));
    server.expectSearch().answer(entries(2, 1), done());

    EXPECT_THAT(dnsOf(fetch(2).at(0).entries), ElementsAre("cn=1"));
    sent.wait("the late answers");
    EXPECT_THAT(dnsOf(fetch(2).at(0).entries), ElementsAre("cn=2"));
}

/// An answer to the first request of a connection that ends before it says which one.
Steps undecodable() { return raw(Bytes("\x30\x05\x02\x01\x01\x65\x84", 7)); }

// When it reads two of them for one request, libldap aborts the process with the end of the session.
TEST(UndecodableAnswers, EndTheConnectionAndNotTheProcess)
{
    ScriptedServer server;
    server.expectSearch().answer(undecodable());
    server.expectBind().answer(undecodable());
    ldap::Session session(utils::Url(QString::fromStdString(server.url())), false, false);
    session.detectLdapVendor();

    try {
        session.bind(QStringLiteral("cn=a"), QStringLiteral("b"));
        FAIL() << "bound";
    } catch (const ldap::BaseError& error) {
        EXPECT_EQ(error.ldapCode, kServerDown);
    }
}

TEST(UndecodableAnswers, EndTheConnectionOfAllSearches)
{
    ScriptedServer server;
    server.expectSearch().answer(undecodable());
    server.expectSearch().answer(undecodable());
    ldap::Session session(utils::Url(QString::fromStdString(server.url())), false, false);

    EXPECT_EQ(std::get<Result>(session.search(below("dc=x"), 2)), Result::connectError);
    EXPECT_EQ(std::get<Result>(session.search(below("dc=x"), 2)), Result::connectError);
}

TEST(UndecodableAnswers, EndTheConnectionOfABind)
{
    ScriptedServer server;
    server.expectBind().answer(undecodable());
    server.expectSearch().answer(undecodable());
    ldap::Session session(utils::Url(QString::fromStdString(server.url())), false, false);

    EXPECT_THROW(session.bind(QStringLiteral("cn=a"), QStringLiteral("b")), ldap::BaseError);
    EXPECT_EQ(std::get<Result>(session.search(below("dc=x"), 2)), Result::connectError);
}

TEST(UndecodableAnswers, AreNoneWhenTheCallerOnlyAsksForTheirError)
{
    ScriptedServer server;
    server.expectBind().answer(success());
    server.expectSearch().answer(entries(1, 1), done());
    ldap::Session session(utils::Url(QString::fromStdString(server.url())), false, false);
    session.bind(QStringLiteral("cn=a"), QStringLiteral("b"));

    EXPECT_THROW(session.checkErrorAndThrow(LDAP_DECODING_ERROR, 0, QString()), ldap::BaseError);

    EXPECT_EQ(session.simpleSearch(below("dc=x")).size(), 1U);
}

TEST_F(StrangeAnswers, OfAnotherSearchGoToThatSearch)
{
    const Gate goOn;
    server.expectSearch().base("dc=slow").answer(waitFor(goOn), entry("cn=slow"), done());
    server.expectSearch().base("dc=fast").answer(opens(goOn), entry("cn=fast"), done());
    HandlerCalls slow;
    ldap::Session other(urlOf(server), false, false);
    session.asyncSearch(below("dc=slow"), slow.handler(), 2);
    server.waitForRequests(1);

    HandlerCalls fast;
    other.asyncSearch(below("dc=fast"), fast.handler(), 2);

    EXPECT_THAT(dnsOf(fast.waitForEnd().at(0).entries), ElementsAre("cn=fast"));
    EXPECT_THAT(dnsOf(slow.waitForEnd().at(0).entries), ElementsAre("cn=slow"));
}

TEST_F(StrangeAnswers, LeaveNothingForASearchOnTheSameSessionAfterTheServerIsGone)
{
    server.expectSearch().answer(closeConnection());
    EXPECT_EQ(resultOf(session), Result::connectError);

    EXPECT_EQ(resultOf(session), Result::connectError);
    EXPECT_EQ(server.requests().size(), 1U);
}

/// An operation without contents in the middle of an answer, and what a search makes of it.
struct EmptyAnswer
{
    const char* name;
    Answer answer;
    Result result;
};

void PrintTo(const EmptyAnswer& empty, std::ostream* out) { *out << empty.name; }

class EmptyAnswers : public ScriptedSessionTest, public ::testing::WithParamInterface<EmptyAnswer>
{
protected:
    void expectTheNextSessionToBeWell()
    {
        server.expectSearch().answer(entries(1, 1), done());
        ldap::Session next(urlOf(server), false, false);
        EXPECT_EQ(resultOf(next), Result::ok);
    }
};

// What brings neither an entry nor a result is passed over; an empty result is none.
TEST_P(EmptyAnswers, AreNeverTakenForAResult)
{
    server.otherwise([](const Request& request) -> Steps {
        // With a length of several bytes, as Active Directory writes it, so that libldap reads it for sure.
        const Bytes message =
            berNumber(request.messageId) + tlv(static_cast<unsigned>(GetParam().answer), "");
        return {entry("cn=a"),
            raw("\x30\x84" + Bytes({0, 0, 0, static_cast<char>(message.size())}) + message), done()};
    });

    const auto calls = fetch(100);

    EXPECT_THAT(resultsOf(calls), ElementsAre(GetParam().result));
    EXPECT_THAT(calls.at(0).entries, SizeIs(GetParam().result == Result::ok ? 1 : 0));
}

// libldap reads eight bytes to learn a message's length. A whole message of seven can't be told from a broken
// one by it when the next has come, too.
TEST_P(EmptyAnswers, EndTheSearchWhenTheyAreTooShortForLibldap)
{
    server.expectSearch().answer(together({entry("cn=a"), rawOperation(GetParam().answer, ""), done()}));

    EXPECT_EQ(resultOf(session), Result::connectError);
    expectTheNextSessionToBeWell();
}

// The same when it depends on how the bytes arrive whether libldap can read it.
TEST_P(EmptyAnswers, AreNeverTakenForAResultHoweverTheyArrive)
{
    server.expectSearch().answer(entry("cn=a"), rawOperation(GetParam().answer, ""), done());

    EXPECT_THAT(resultOf(session), AnyOf(GetParam().result, Result::connectError));
    expectTheNextSessionToBeWell();
}

INSTANTIATE_TEST_SUITE_P(Wire, EmptyAnswers,
    ::testing::Values(EmptyAnswer{"SearchEntry", Answer::searchEntry, Result::ok},
        EmptyAnswer{"SearchReference", Answer::searchReference, Result::ok},
        EmptyAnswer{"IntermediateResponse", Answer::intermediateResponse, Result::ok},
        EmptyAnswer{"SearchDone", Answer::searchDone, Result::connectError},
        EmptyAnswer{"BindResponse", Answer::bindResponse, Result::connectError},
        EmptyAnswer{"ExtendedResponse", Answer::extendedResponse, Result::connectError}),
    ::testing::PrintToStringParamName());

TEST_F(StrangeAnswers, ARefusedConnectionIsAConnectError)
{
    server.stopListening();

    EXPECT_EQ(resultOf(session), Result::connectError);
}

} // namespace

} // namespace tavo::test
