// What a host says about one connection, with a server that follows a script.
#include "scripted_session_test.h"
#include "support/reserved_port.h"
#include "support/scripted_server.h"
#include "support/thrown_by.h"
#include <ldap/connection_options.h>
#include <ldap/error.h>
#include <ldap/manager.h>
#include <ldap/session.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace tavo::test {
namespace {

using namespace std::chrono_literals;

using ldap::BaseError;
using ldap::ConnectFailure;
using ldap::ConnectionOptions;
using ldap::Interrupter;
using ldap::Result;
using ldap::Session;

using ::testing::HasSubstr;
using ::testing::SizeIs;
using ::testing::VariantWith;

utils::Url urlOf(const std::string& text) { return utils::Url(QString::fromStdString(text)); }

ldap::SearchParams params()
{
    return {QStringLiteral("dc=x"), QStringLiteral("(cn=*)"), {}, ldap::SearchScope::subtree};
}

/// Options that are there and change nothing.
ConnectionOptions harmless() { return {.connectTimeout = 1h}; }

class OptionsTest : public ::testing::Test
{
protected:
    std::unique_ptr<Session> makeSession(const ConnectionOptions& options)
    {
        return std::make_unique<Session>(urlOf(server.url()), false, false, options);
    }

    ScriptedServer server;
};

TEST_F(OptionsTest, ConnectInTheConstructor)
{
    const auto session = makeSession(harmless());
    server.waitForConnections(1);
    EXPECT_FALSE(session->tlsFacts());
}

TEST_F(OptionsTest, LeaveTheFirstCallToConnectWhereAllAreAbsent)
{
    const auto session = makeSession({});
    server.expectBind().answer(success());
    session->bind({}, {});
    EXPECT_EQ(server.connections(), 1);
}

TEST_F(OptionsTest, ServeAWholeSession)
{
    server.expectBind("cn=a", "secret").answer(success());
    server.expectSearch().base("").answer(done());
    server.expectSearch().paged(2, "").answer(entry("cn=a,dc=x"), entry("cn=b,dc=x"), done().page("one"));
    server.expectSearch().paged(2, "one").answer(entry("cn=c,dc=x"), done().page(""));
    server.expectWhoAmI().answer(success().responseValue("dn:cn=a"));
    {
        const auto session = makeSession(harmless());
        session->bind(QStringLiteral("cn=a"), QStringLiteral("secret"));
        session->detectLdapVendor();
        EXPECT_THAT(session->search(params(), 2), VariantWith<std::vector<ldap::SearchEntry>>(SizeIs(3)));
        EXPECT_EQ(session->whoAmI(), QStringLiteral("dn:cn=a"));
    }
    server.waitForClose(0);
    EXPECT_EQ(server.connections(), 1);
}

TEST_F(OptionsTest, ReachFetchesAndConnectionTests)
{
    const Interrupter interrupter;
    interrupter.interrupt();
    ldap::Settings settings;
    settings.uri = urlOf(server.url());
    const ConnectionOptions options{.interrupter = interrupter};
    EXPECT_EQ(thrownBy<BaseError>([&] { ldap::createManagerOrThrow(settings, options); }).ldapCode,
        LDAP_USER_CANCELLED);
    EXPECT_FALSE(ldap::testLdapConnection(settings, options));
    bool hasFailed = false;
    ldap::testLdapConnectionAsync(settings, options, [&] { hasFailed = true; }).get();
    EXPECT_TRUE(hasFailed);
    EXPECT_EQ(server.connections(), 0);
}

TEST_F(OptionsTest, AreRefusedWhenTheyContradictThemselves)
{
    const std::pair<ConnectionOptions, std::string> wrong[] = {
        {{.connectTimeout = 0ms}, "limit of time"},
        {{.answerTimeout = -1s}, "limit of time"},
        {{.pageSilenceTimeout = 0ms}, "limit of time"},
        {{.maximumMessageSize = 0}, "limit of size"},
        {{.maximumAnswerSize = 0}, "limit of size"},
        {{.trustedCertificates = QString()}, "name of a file"},
        {{.clientKey = QStringLiteral("key.pem")}, "clientCertificate"},
    };
    for (const auto& [options, reason] : wrong) {
        const BaseError error = thrownBy<BaseError>([&, &refused = options] { makeSession(refused); });
        EXPECT_EQ(error.ldapCode, LDAP_PARAM_ERROR);
        EXPECT_EQ(error.connectFailure.kind, ConnectFailure::Kind::invalidOptions);
        EXPECT_THAT(error.connectFailure.detail.toStdString(), HasSubstr(reason));
    }
    EXPECT_EQ(server.connections(), 0);
}

TEST_F(OptionsTest, SayWhichAddressesWereTriedInVain)
{
    const ReservedPort unused;
    const std::string address = "127.0.0.1:" + std::to_string(unused.number());
    const BaseError error =
        thrownBy<BaseError>([&] { Session(urlOf("ldap://" + address), false, false, harmless()); });
    EXPECT_EQ(error.ldapCode, LDAP_SERVER_DOWN);
    EXPECT_EQ(error.context, QStringLiteral("connect"));
    EXPECT_EQ(error.systemError, ECONNREFUSED);
    EXPECT_EQ(error.connectFailure.kind, ConnectFailure::Kind::unreachable);
    EXPECT_EQ(error.connectFailure.address.toStdString(), "ldap://" + address);
    EXPECT_THAT(error.connectFailure.detail.toStdString(), HasSubstr(address + ": Connection refused"));
    ASSERT_THAT(error.connectFailure.tries, SizeIs(1));
    EXPECT_EQ(error.connectFailure.tries[0].address.toStdString(), address);
    EXPECT_EQ(error.connectFailure.tries[0].systemError, ECONNREFUSED);
}

TEST_F(OptionsTest, TakeTheFirstServerOfAListThatAnswers)
{
    const ReservedPort unused;
    const std::string list = "ldap://127.0.0.1:" + std::to_string(unused.number()) + " " + server.url();
    server.expectBind().answer(success());
    Session session(urlOf(list), false, false, harmless());
    session.bind({}, {});
}

// The client library would, without a bound, and without the bind of the host.
TEST_F(OptionsTest, ConnectOnceAndForAll)
{
    server.expectBind().answer(success());
    server.expectWhoAmI().answer(closeConnection());
    const auto session = makeSession(harmless());
    session->bind({}, {});
    for (int call = 0; call < 3; ++call) {
        EXPECT_EQ(thrownBy<BaseError>([&] { session->whoAmI(); }).ldapCode, LDAP_SERVER_DOWN);
    }
    EXPECT_THAT(session->search(params(), 2), VariantWith<Result>(Result::connectError));
    EXPECT_EQ(thrownBy<BaseError>([&] { session->bind({}, {}); }).ldapCode, LDAP_SERVER_DOWN);
    EXPECT_EQ(server.connections(), 1);
}

TEST_F(OptionsTest, EndTheConnectionAtTooLongAMessage)
{
    server.expectSearch().answer(entry("cn=a,dc=x").attr("cn", Bytes(100, 'x')), done());
    server.expectSearch().answer(entry("cn=a,dc=x").attr("cn", Bytes(2000, 'x')), done());
    const auto session = makeSession({.maximumMessageSize = 1000});
    EXPECT_THAT(session->simpleSearch(params()), SizeIs(1));
    const BaseError error = thrownBy<BaseError>([&] { session->simpleSearch(params()); });
    EXPECT_EQ(error.ldapCode, LDAP_SERVER_DOWN);
    EXPECT_EQ(error.systemError, EMSGSIZE);
    EXPECT_EQ(error.connectFailure.kind, ConnectFailure::Kind::tooMuch);
    EXPECT_THAT(error.connectFailure.detail.toStdString(), HasSubstr("maximumMessageSize of 1000 bytes"));
    server.waitForClose(0);
}

TEST_F(OptionsTest, EndTheConnectionAtTooLongAnAnswer)
{
    const Entry one = entry("cn=a,dc=x").attr("cn", Bytes(100, 'x'));
    for (int page = 0; page < 3; ++page) {
        server.expectSearch().answer(one, one, done().page(page < 2 ? "more" : ""));
    }
    server.expectSearch().answer(one, one, one, one, one, done());
    const auto session = makeSession({.maximumAnswerSize = 500});
    EXPECT_THAT(session->search(params(), 2), VariantWith<std::vector<ldap::SearchEntry>>(SizeIs(6)));
    auto reported = params();
    reported.report = std::make_shared<ldap::SearchReport>();
    EXPECT_THAT(session->search(reported, 10), VariantWith<Result>(Result::connectError));
    EXPECT_EQ(reported.report->connectFailure.kind, ConnectFailure::Kind::tooMuch);
    EXPECT_THAT(
        reported.report->connectFailure.detail.toStdString(), HasSubstr("maximumAnswerSize of 500 bytes"));
    server.waitForClose(0);
}

} // namespace
} // namespace tavo::test
