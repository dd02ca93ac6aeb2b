// The throw-away slapd, by libldap alone.
#include "support/slapd.h"
#include "support/test_ca.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <memory>

namespace tavo::test {
namespace {

using ::testing::HasSubstr;

struct Unbind
{
    void operator()(LDAP* ldap) const { ldap_unbind_ext(ldap, nullptr, nullptr); }
};
using Connection = std::unique_ptr<LDAP, Unbind>;

Connection connect(const std::string& url)
{
    LDAP* ldap = nullptr;
    EXPECT_EQ(ldap_initialize(&ldap, url.c_str()), LDAP_SUCCESS);
    const int version = LDAP_VERSION3;
    ldap_set_option(ldap, LDAP_OPT_PROTOCOL_VERSION, &version);
    return Connection(ldap);
}

int simpleBind(const Connection& connection, const std::string& dn, std::string password)
{
    berval credentials{password.size(), password.data()};
    return ldap_sasl_bind_s(
        connection.get(), dn.c_str(), LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr, nullptr);
}

struct Found
{
    int result;
    int entries;
};

Found search(const Connection& connection, const std::string& base, int scope, const std::string& filter)
{
    LDAPMessage* message = nullptr;
    const int result = ldap_search_ext_s(connection.get(), base.c_str(), scope, filter.c_str(), nullptr, 0,
        nullptr, nullptr, nullptr, LDAP_NO_LIMIT, &message);
    const std::unique_ptr<LDAPMessage, int (*)(LDAPMessage*)> owner(message, &ldap_msgfree);
    return {result, message == nullptr ? 0 : ldap_count_entries(connection.get(), message)};
}

const std::string people = "dn: ou=people,dc=example,dc=test\nobjectClass: organizationalUnit\n\n"
                           "dn: uid=ann,ou=people,dc=example,dc=test\nobjectClass: inetOrgPerson\n"
                           "uid: ann\ncn: Ann Lee\nsn: Lee\nuserPassword: ann's\n\n"
                           "dn: uid=bob,ou=people,dc=example,dc=test\nobjectClass: inetOrgPerson\n"
                           "uid: bob\ncn: Bob Ray\nsn: Ray\n\n";

TEST(SlapdTest, AnswersWithItsEntriesAndCredentials)
{
    Slapd slapd({.ldif = people});
    const Connection connection = connect(slapd.url());
    EXPECT_EQ(simpleBind(connection, slapd.rootDn(), slapd.rootPassword()), LDAP_SUCCESS);
    EXPECT_EQ(simpleBind(connection, "uid=ann,ou=people,dc=example,dc=test", "ann's"), LDAP_SUCCESS);
    EXPECT_EQ(simpleBind(connection, slapd.rootDn(), "wrong"), LDAP_INVALID_CREDENTIALS);
    const Found found = search(connection, slapd.suffix(), LDAP_SCOPE_SUBTREE, "(objectClass=person)");
    EXPECT_EQ(found.result, LDAP_SUCCESS);
    EXPECT_EQ(found.entries, 2);
    slapd.stop();
    EXPECT_THAT(slapd.log(), HasSubstr("nentries=2"));
}

TEST(SlapdTest, AppliesLinesOfConfiguration)
{
    const Slapd slapd({.ldif = people,
        .globalLines = {"disallow bind_anon"},
        .databaseLines = {"limits anonymous size=1"}});
    const Connection connection = connect(slapd.url());
    EXPECT_EQ(search(connection, slapd.suffix(), LDAP_SCOPE_SUBTREE, "(objectClass=person)").result,
        LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(simpleBind(connection, "", ""), LDAP_INAPPROPRIATE_AUTH);
}

TEST(SlapdTest, RefusesConnectionsWhileStoppedAndKeepsItsEntriesAndUrl)
{
    Slapd slapd({.ldif = people});
    const std::string url = slapd.url();
    slapd.stop();
    EXPECT_EQ(simpleBind(connect(url), slapd.rootDn(), slapd.rootPassword()), LDAP_SERVER_DOWN);
    slapd.start();
    slapd.kill();
    EXPECT_EQ(simpleBind(connect(url), slapd.rootDn(), slapd.rootPassword()), LDAP_SERVER_DOWN);
    slapd.restart();
    EXPECT_EQ(slapd.url(), url);
    EXPECT_EQ(search(connect(url), slapd.suffix(), LDAP_SCOPE_SUBTREE, "(uid=ann)").entries, 1);
}

TEST(SlapdTest, SuspendedServerIsSilentUntilResumed)
{
    Slapd slapd;
    const Connection connection = connect(slapd.url());
    ASSERT_EQ(simpleBind(connection, "", ""), LDAP_SUCCESS);
    slapd.suspend();
    const timeval limit{0, 50'000};
    ldap_set_option(connection.get(), LDAP_OPT_TIMEOUT, &limit);
    EXPECT_EQ(search(connection, "", LDAP_SCOPE_BASE, "(objectClass=*)").result, LDAP_TIMEOUT);
    slapd.resume();
    const timeval none{-1, 0};
    ldap_set_option(connection.get(), LDAP_OPT_TIMEOUT, &none);
    EXPECT_EQ(search(connection, "", LDAP_SCOPE_BASE, "(objectClass=*)").result, LDAP_SUCCESS);
}

TEST(SlapdTest, ServersSideBySideAreIndependent)
{
    const Slapd first({.ldif = people});
    const Slapd second;
    EXPECT_NE(first.port(), second.port());
    EXPECT_EQ(search(connect(second.url()), second.suffix(), LDAP_SCOPE_SUBTREE, "(uid=ann)").entries, 0);
}

TEST(SlapdTest, CanImitateActiveDirectory)
{
    SlapdOptions options = likeActiveDirectory();
    const auto user = [](const std::string& name, const std::string& control) {
        return "dn: cn=" + name + ",dc=ad,dc=test\nobjectClass: user\ncn: " + name + "\nsn: " + name +
               "\nsAMAccountName: " + name + "\nobjectCategory: User\nuserAccountControl: " + control +
               "\n\n";
    };
    options.ldif = user("enabled", "512") + user("disabled", "514");
    const Slapd slapd(options);
    const Connection connection = connect(slapd.url());
    EXPECT_EQ(search(connection, "", LDAP_SCOPE_BASE, "(forestFunctionality=*)").entries, 1);
    EXPECT_EQ(search(connection, slapd.suffix(), LDAP_SCOPE_SUBTREE,
                  "(&(objectCategory=User)(!(userAccountControl:1.2.840.113556.1.4.803:=2)))")
                  .entries,
        1);
}

TEST(SlapdTest, RetcodeOverlayAnswersAsTold)
{
    const Slapd slapd({.modules = {"retcode"},
        .databaseLines = {"overlay retcode", "retcode-parent \"ou=faults,dc=example,dc=test\"",
            "retcode-item \"cn=busy\" 51"}});
    EXPECT_EQ(search(connect(slapd.url()), "cn=busy,ou=faults,dc=example,dc=test", LDAP_SCOPE_BASE,
                  "(objectClass=*)")
                  .result,
        LDAP_BUSY);
}

/// Connects with TLS from the start and binds, trusting that authority.
int bindWithTls(const std::string& url, const TestCa& ca)
{
    const Connection connection = connect(url);
    ldap_set_option(connection.get(), LDAP_OPT_X_TLS_CACERTFILE, ca.certificate().c_str());
    const int required = LDAP_OPT_X_TLS_HARD;
    ldap_set_option(connection.get(), LDAP_OPT_X_TLS_REQUIRE_CERT, &required);
    const int isServer = 0;
    ldap_set_option(connection.get(), LDAP_OPT_X_TLS_NEWCTX, &isServer);
    return simpleBind(connection, "", "");
}

SlapdOptions withTls(const TestCa& ca, const ServerCertificate& server)
{
    return {.tls = SlapdTls{ca.certificate(), server.certificate, server.key}};
}

TEST(SlapdTlsTest, StartTlsAndLdapsWorkForClientsThatTrustTheAuthority)
{
    TestCa ca;
    const Slapd slapd(withTls(ca, ca.issue()));
    EXPECT_EQ(bindWithTls(slapd.ldapsUrl(), ca), LDAP_SUCCESS);
    EXPECT_EQ(bindWithTls(slapd.ldapsUrl(), TestCa("Other authority")), LDAP_SERVER_DOWN);

    const Connection connection = connect(slapd.url());
    ldap_set_option(connection.get(), LDAP_OPT_X_TLS_CACERTFILE, ca.certificate().c_str());
    const int isServer = 0;
    ldap_set_option(connection.get(), LDAP_OPT_X_TLS_NEWCTX, &isServer);
    EXPECT_EQ(ldap_start_tls_s(connection.get(), nullptr, nullptr), LDAP_SUCCESS);
    EXPECT_EQ(simpleBind(connection, slapd.rootDn(), slapd.rootPassword()), LDAP_SUCCESS);
}

TEST(SlapdTlsTest, EveryCertificateFlawIsRefused)
{
    TestCa ca;
    for (const ServerCertificate& flawed :
        {ca.issueExpired(), ca.issueNotYetValid(), ca.issueForOtherHost(), ca.issueSelfSigned()}) {
        const Slapd slapd(withTls(ca, flawed));
        EXPECT_EQ(bindWithTls(slapd.ldapsUrl(), ca), LDAP_SERVER_DOWN) << flawed.certificate;
    }
}

TEST(SlapdTest, EntriesMayViolateTheSchemaWhenItIsUnchecked)
{
    const std::string group = "dn: cn=nobody,dc=example,dc=test\nobjectClass: groupOfNames\ncn: nobody\n\n";
    EXPECT_THROW(Slapd({.ldif = group}), std::runtime_error);
    const Slapd slapd({.ldif = group, .checksSchema = false});
    EXPECT_EQ(search(connect(slapd.url()), slapd.suffix(), LDAP_SCOPE_SUBTREE, "(objectClass=groupOfNames)")
                  .entries,
        1);
}

TEST(SlapdTest, BadConfigurationIsReportedInTheServersWords)
{
    try {
        const Slapd slapd({.databaseLines = {"no-such-directive"}});
        FAIL() << "must throw";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("no-such-directive"));
    }
}

} // namespace
} // namespace tavo::test
