// One connection to a real server: TLS, bind, who-am-I, and what is said when it goes wrong.
#include "directory_test.h"
#include "support/assertion_capture.h"
#include "support/gate.h"
#include "support/ldap_messages.h"
#include "support/tcp_relay.h"
#include "support/test_ca.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>

namespace tavo::ldap {
namespace {

using test::operator""_s;
using test::qt;
using test::Slapd;
using test::TestCa;
using test::urlOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

test::SlapdOptions withTls(TestCa& ca)
{
    const test::ServerCertificate server = ca.issue();
    return {.ldif = test::people(1), .tls = test::SlapdTls{ca.certificate(), server.certificate, server.key}};
}

/// Trusts an authority through the environment, as an administrator would; before the process's first use of
/// the client library.
void trust(const TestCa& ca) { setenv("LDAPTLS_CACERT", ca.certificate().c_str(), 1); }

void bindAsAdmin(Session& session, const Slapd& slapd)
{
    session.bind(qt(slapd.rootDn()), qt(slapd.rootPassword()));
}

TEST(SessionTest, ContactsNobodyBeforeItsFirstOperation)
{
    const Session session(urlOf("ldap://127.0.0.1:1"), false, false);
}

TEST(SessionTest, BindsWithADnAndAPassword)
{
    const Slapd slapd;
    Session session(urlOf(slapd.url()), false, false);
    const test::LogCapture log;
    bindAsAdmin(session, slapd);
    EXPECT_EQ(session.whoAmI(), "dn:cn=admin,dc=example,dc=test"_s);
    EXPECT_THAT(log.texts(log::Level::verbose),
        ElementsAre("Binding to [cn=admin,dc=example,dc=test]...", "Who am I?"));
    EXPECT_THAT(log.texts(log::Level::debug), ElementsAre("Bound to [cn=admin,dc=example,dc=test]"));
}

TEST(SessionTest, TakesNoAnswerThatCameInTheClearBeforeTls)
{
    TestCa ca;
    const Slapd slapd(withTls(ca));
    const test::Bytes text = test::tlv(0x04, "");
    const test::Bytes success = test::berNumber(0, 0x0a) + text + text;
    const auto answer = [&](unsigned tag) { return test::encodeMessage(2, test::tlv(tag, success), {}); };
    constexpr std::size_t upgradeAnswer = 14;
    constexpr std::size_t recordHeader = 5;

    for (const std::size_t offset :
        {std::size_t{0}, upgradeAnswer, upgradeAnswer + recordHeader, upgradeAnswer + 200}) {
        SCOPED_TRACE(offset);
        test::TcpRelay relay(slapd.port());
        const test::Gate isInjected = relay.insert(
            test::TcpRelay::Direction::toClient, test::TcpRelay::bytes(offset), answer(0x61) + answer(0x65));
        try {
            Session session(urlOf(relay.url()), true, true);
            session.bind(qt(slapd.rootDn()), "not the password"_s);
            ADD_FAILURE() << "an injected answer has counted";
        } catch (const BaseError& error) {
            // What comes before the answer to the upgrade answers nothing, and is dropped.
            EXPECT_EQ(error.ldapCode == LDAP_INVALID_CREDENTIALS, offset == 0) << error.what();
        }
        isInjected.wait("the injected answers");
    }
}

TEST(SessionTest, BindsAnonymouslyWithoutAnAssertionWhenBothAreEmpty)
{
    const Slapd slapd;
    const test::AssertionCapture assertions;
    Session session(urlOf(slapd.url()), false, false);
    session.bind(QString(), QString());
    EXPECT_EQ(session.whoAmI(), "anonymous"_s);
    EXPECT_THAT(assertions.failures(), IsEmpty());
}

TEST(SessionTest, ReportsADnWithoutAPasswordAndLetsTheServerDecide)
{
    const Slapd slapd;
    const test::AssertionCapture assertions;
    Session session(urlOf(slapd.url()), false, false);
    try {
        session.bind(qt(slapd.rootDn()), QString());
        FAIL() << "slapd refuses this by default";
    } catch (const BaseError& error) {
        EXPECT_EQ(error.ldapCode, 53);
        EXPECT_EQ(error.context, "bind"_s);
    }
    const test::AssertionCapture::Failure expected{"ldap/session", 80, "!(dn.isEmpty() ^ password.isEmpty())",
        "dn and password must be empty or not empty both at the same time"};
    EXPECT_THAT(assertions.failures(), ElementsAre(expected));

    EXPECT_THROW(session.bind(QString(), "password"_s), InvalidCredentialsError);
    EXPECT_THAT(assertions.failures(), ElementsAre(expected, expected));
}

TEST(SessionTest, NamesTheDnWhoseCredentialsAreRefused)
{
    const Slapd slapd;
    Session session(urlOf(slapd.url()), false, false);
    try {
        session.bind(qt(slapd.rootDn()), "wrong"_s);
        FAIL() << "nothing thrown";
    } catch (const InvalidCredentialsError& error) {
        EXPECT_EQ(error.user, qt(slapd.rootDn()));
        EXPECT_EQ(error.ldapCode, 49);
    }
}

TEST(SessionTest, SendsAPasswordWithEveryCharacter)
{
    const QString password = "pä%1\"'ß\\ 漢 "_s;
    const Slapd slapd({.ldif = test::people(1) +
                               "dn: cn=odd,dc=example,dc=test\nobjectClass: person\n"
                               "cn: odd\nsn: odd\nuserPassword:: " +
                               password.toUtf8().toBase64().toStdString() + "\n"});
    Session session(urlOf(slapd.url()), false, false);
    EXPECT_NO_THROW(session.bind("cn=odd,dc=example,dc=test"_s, password));
    EXPECT_THROW(session.bind("cn=odd,dc=example,dc=test"_s, password.trimmed()), InvalidCredentialsError);
}

TEST(SessionTest, SendsAPasswordWithANulInFull)
{
    const Slapd slapd({.ldif = test::people(1) + "dn: cn=nul,dc=example,dc=test\nobjectClass: person\n"
                                                 "cn: nul\nsn: nul\nuserPassword:: YQBi\n"});
    Session session(urlOf(slapd.url()), false, false);
    EXPECT_NO_THROW(session.bind("cn=nul,dc=example,dc=test"_s, QString::fromUtf8("a\0b", 3)));
    EXPECT_THROW(session.bind("cn=nul,dc=example,dc=test"_s, "a"_s), InvalidCredentialsError);
}

TEST(SessionTest, ReportsThatNothingListens)
{
    Slapd slapd;
    slapd.stop();
    Session session(urlOf(slapd.url()), false, false);
    try {
        bindAsAdmin(session, slapd);
        FAIL() << "nothing thrown";
    } catch (const BaseError& error) {
        EXPECT_EQ(error.ldapCode, -1);
        EXPECT_EQ(error.context, "bind"_s);
        EXPECT_NE(error.systemError, 0);
    }
}

TEST(SessionTest, SurvivesWritingToAConnectionThatTheServerHasClosed)
{
    // The default, with which a signal would end this process, and the test with it.
    std::signal(SIGPIPE, SIG_DFL);
    Slapd slapd;
    auto session = std::make_unique<Session>(urlOf(slapd.url()), false, false);
    bindAsAdmin(*session, slapd);
    slapd.restart();
    const SearchParams anything{qt(slapd.suffix()), QString(), {}, SearchScope::subtree};
    for (int attempt = 0; attempt < 3; ++attempt) {
        EXPECT_THROW(session->simpleSearch(anything), BaseError);
        EXPECT_EQ(std::get<Result>(session->search(anything, 10)), Result::connectError);
        EXPECT_THROW(session->whoAmI(), BaseError);
    }
    session.reset();
}

TEST(SessionTest, RefusesAUrlThatTheClientLibraryCannotRead)
{
    // None of them may be mistaken for an empty one, which means "the server that the host is configured
    // for".
    for (const char* const url : {"http://127.0.0.1", "ldap://ho st", "ldap://127.0.0.1:port", "127.0.0.1"}) {
        try {
            const Session session(urlOf(url), false, false);
            FAIL() << url;
        } catch (const BaseError& error) {
            EXPECT_EQ(error.ldapCode, -9) << url;
            EXPECT_EQ(error.context, "init"_s) << url;
        }
    }
}

TEST(SessionTest, UpgradesToTlsBeforeAnythingElse)
{
    TestCa ca;
    trust(ca);
    Slapd slapd(withTls(ca));
    {
        Session session(urlOf(slapd.url()), true, false);
        bindAsAdmin(session, slapd);
        EXPECT_EQ(session.whoAmI(), "dn:cn=admin,dc=example,dc=test"_s);
    }
    slapd.stop();
    EXPECT_THAT(slapd.log(), ::testing::HasSubstr("STARTTLS"));
}

TEST(SessionTest, SpeaksTlsFromTheFirstByteOnLdapsAndIgnoresStartTls)
{
    TestCa ca;
    trust(ca);
    Slapd slapd(withTls(ca));
    for (const bool startTls : {false, true}) {
        const test::LogCapture log;
        Session session(urlOf(slapd.ldapsUrl()), startTls, false);
        bindAsAdmin(session, slapd);
        EXPECT_FALSE(log.contains("Upgrading to TLS"));
    }
    slapd.stop();
    EXPECT_THAT(slapd.log(), ::testing::Not(::testing::HasSubstr("STARTTLS")));
}

TEST(SessionTest, RefusesACertificateOfAnUnknownAuthority)
{
    TestCa ca;
    const TestCa other;
    trust(other);
    const Slapd slapd(withTls(ca));
    EXPECT_THROW(Session(urlOf(slapd.url()), true, false), BaseError);
    Session session(urlOf(slapd.ldapsUrl()), false, false);
    EXPECT_THROW(bindAsAdmin(session, slapd), BaseError);
}

TEST(SessionTest, AcceptsAnyCertificateWhenAskedTo)
{
    TestCa ca;
    const TestCa other;
    trust(other);
    const Slapd slapd(withTls(ca));
    Session upgraded(urlOf(slapd.url()), true, true);
    EXPECT_NO_THROW(bindAsAdmin(upgraded, slapd));
    Session secure(urlOf(slapd.ldapsUrl()), false, true);
    EXPECT_NO_THROW(bindAsAdmin(secure, slapd));
}

TEST(SessionTest, DoesNotShareItsCertificateStrictness)
{
    TestCa ca;
    const TestCa other;
    trust(other);
    const Slapd slapd(withTls(ca));
    Session lax(urlOf(slapd.ldapsUrl()), false, true);
    Session strict(urlOf(slapd.ldapsUrl()), false, false);
    EXPECT_NO_THROW(bindAsAdmin(lax, slapd));
    EXPECT_THROW(bindAsAdmin(strict, slapd), BaseError);
}

TEST(SessionTest, NamesTheUserOnATlsConnectionToo)
{
    TestCa ca;
    trust(ca);
    const Slapd slapd(withTls(ca));
    Session session(urlOf(slapd.ldapsUrl()), false, false);
    EXPECT_THROW(session.bind(qt(slapd.rootDn()), "wrong"_s), InvalidCredentialsError);
}

TEST(SessionTest, ReportsAServerThatRefusesStartTls)
{
    const Slapd slapd;
    try {
        const Session session(urlOf(slapd.url()), true, false);
        FAIL() << "nothing thrown";
    } catch (const BaseError& error) {
        EXPECT_EQ(error.context, "startTls"_s);
        EXPECT_GT(error.ldapCode, 0);
    }
}

TEST(SessionTest, ReportsASecondUpgradeAndTriesItAllTheSame)
{
    TestCa ca;
    trust(ca);
    const Slapd slapd(withTls(ca));
    Session session(urlOf(slapd.url()), true, false);
    const test::AssertionCapture assertions;
    EXPECT_THROW(session.startTls(), BaseError);
    EXPECT_THAT(assertions.failures(),
        ElementsAre(test::AssertionCapture::Failure{"ldap/session", 107, "!m_isSecure", ""}));
    EXPECT_EQ(session.whoAmI(), "anonymous"_s) << "the connection is as secure as before";
}

TEST(VendorTest, IsOpenLdapForAPlainServer)
{
    const Slapd slapd;
    const test::LogCapture log;
    const VendorDefaults defaults = Session(urlOf(slapd.url()), false, false).detectLdapVendor();
    EXPECT_EQ(defaults.loginAttribute, "uid"_s);
    EXPECT_EQ(defaults.groupObjectClass, "groupOfNames"_s);
    EXPECT_EQ(defaults.memberAttribute, QByteArray("member"));
    EXPECT_TRUE(defaults.userFilter.isEmpty());
    EXPECT_FALSE(log.contains("Detect LDAP vendor error"));
}

TEST(VendorTest, IsActiveDirectoryForAServerWithAForest)
{
    const Slapd slapd(test::likeActiveDirectory());
    const VendorDefaults defaults = Session(urlOf(slapd.url()), false, false).detectLdapVendor();
    EXPECT_EQ(defaults.loginAttribute, "sAMAccountName"_s);
    EXPECT_EQ(defaults.groupObjectClass, "group"_s);
    EXPECT_EQ(defaults.memberAttribute, QByteArray("member"));
    EXPECT_EQ(
        defaults.userFilter, "(&(objectCategory=User)(!(userAccountControl:1.2.840.113556.1.4.803:=2)))"_s);
}

TEST(VendorTest, IsOpenLdapForAServerThatCannotBeAsked)
{
    Slapd slapd;
    slapd.stop();
    const Session session(urlOf(slapd.url()), false, false);
    const test::LogCapture log;
    EXPECT_EQ(session.detectLdapVendor().loginAttribute, "uid"_s);
    EXPECT_THAT(log.texts(log::Level::debug),
        Contains(::testing::MatchesRegex("Detect LDAP vendor error: ldap_search_ext_s: .*\\.")).Times(1));
}

} // namespace
} // namespace tavo::ldap
