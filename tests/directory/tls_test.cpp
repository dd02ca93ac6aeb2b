// What comes of a TLS connection to a server in every state of health, on the TLS library that the client
// library stands on here: the table in docs/tls.md has a column for each.
#include "directory_test.h"
#include "support/scripted_server.h"
#include "support/temporary_directory.h"
#include "support/test_ca.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>
#include <openssl/err.h>

#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <sstream>

namespace tavo::ldap {
namespace {

using test::operator""_s;
using test::CertificateOptions;
using test::qt;
using test::ScriptedServer;
using test::ServerCertificate;
using test::Slapd;
using test::Steps;
using test::TestCa;
using test::urlOf;
using ::testing::Contains;
using ::testing::HasSubstr;

enum class Connection
{
    startTls,
    ldaps
};

std::string nameOf(Connection connection)
{
    return connection == Connection::startTls ? "StartTLS" : "ldaps";
}

/// The authority that this process trusts, by way of the environment, as an administrator would have it.
TestCa& trustedCa()
{
    static TestCa ca;
    return ca;
}

TestCa& otherCa()
{
    static TestCa ca("Other authority");
    return ca;
}

std::string tlsPackage()
{
    char* package = nullptr;
    ldap_get_option(nullptr, LDAP_OPT_X_TLS_PACKAGE, &package);
    const std::string name = package == nullptr ? "" : package;
    ldap_memfree(package);
    return name;
}

std::string text(const BaseError& error, const std::string& type)
{
    return "`" + type + "` " + std::to_string(error.ldapCode) + ", \"" + error.message().toStdString() + "\"";
}

/// Connects and binds, and tells in the words of the table what came of it.
std::string outcome(const std::string& url, Connection connection, bool ignoresCertificateErrors)
{
    try {
        Session session(urlOf(url), connection == Connection::startTls, ignoresCertificateErrors);
        session.bind("cn=admin,dc=example,dc=test"_s, "secret"_s);
        return "accepted";
    } catch (const TlsError& error) {
        const char* const reason = ERR_reason_error_string(error.sslError);
        return text(error, "TlsError") + ", OpenSSL: " + (reason == nullptr ? "" : reason);
    } catch (const InvalidCredentialsError& error) {
        return text(error, "InvalidCredentialsError");
    } catch (const BaseError& error) {
        return text(error, "BaseError");
    }
}

test::SlapdOptions withCertificate(const ServerCertificate& certificate)
{
    return {.tls = test::SlapdTls{trustedCa().certificate(), certificate.certificate, certificate.key}};
}

/// What one kind of server does to a connection.
using Attempt = std::function<std::string(Connection)>;

Attempt withServersCertificate(
    const std::function<ServerCertificate()>& certificate, bool ignoresCertificateErrors = false)
{
    return [=](Connection connection) {
        const Slapd slapd(withCertificate(certificate()));
        const std::string url = connection == Connection::ldaps ? slapd.ldapsUrl() : slapd.url();
        return outcome(url, connection, ignoresCertificateErrors);
    };
}

ServerCertificate issue(const CertificateOptions& options) { return trustedCa().issue(options); }

/// A server that lets the handshake begin and answers the client's first message like this.
Attempt withHandshakeAnswered(const Steps& answer)
{
    return [=](Connection connection) {
        ScriptedServer server;
        const Steps handshake{test::awaitRawInput(), answer};
        if (connection == Connection::startTls)
            server.expectStartTls().answer(test::success(), handshake);
        else
            server.greet(handshake);
        return outcome(server.url(connection == Connection::ldaps ? "ldaps" : "ldap"), connection, false);
    };
}

/// A TLS record of one fatal alert.
Steps alert(char description) { return test::raw(test::Bytes("\x15\x03\x03\x00\x02\x02", 6) + description); }

struct Case
{
    /// The first cell of its rows in the table.
    std::string server;
    /// Part of its tests' names.
    std::string name;
    Attempt attempt;
    std::vector<Connection> connections = {Connection::startTls, Connection::ldaps};
};

const std::vector<Case>& cases()
{
    static constexpr char accessDenied = 49;
    static constexpr char protocolVersion = 70;
    static const std::vector<Case> all{
        {"good certificate for its address", "goodCertificate",
            withServersCertificate([] { return issue({}); })},
        {"good certificate, the address in its common name only", "addressInCommonName",
            withServersCertificate([] { return issue({.commonName = "127.0.0.1", .subjectAltNames = {}}); })},
        {"certificate for another address", "otherAddress",
            withServersCertificate([] { return issue({.subjectAltNames = {"IP:127.0.0.2"}}); })},
        {"certificate for another host", "otherHost",
            withServersCertificate([] { return trustedCa().issueForOtherHost(); })},
        {"certificate for another host, errors ignored", "otherHostIgnored",
            withServersCertificate([] { return trustedCa().issueForOtherHost(); }, true)},
        {"certificate of an unknown authority", "unknownAuthority",
            withServersCertificate([] { return otherCa().issue(); })},
        {"certificate of an unknown authority, errors ignored", "unknownAuthorityIgnored",
            withServersCertificate([] { return otherCa().issue(); }, true)},
        {"self-signed certificate", "selfSigned",
            withServersCertificate([] { return trustedCa().issueSelfSigned(); })},
        {"self-signed certificate, errors ignored", "selfSignedIgnored",
            withServersCertificate([] { return trustedCa().issueSelfSigned(); }, true)},
        {"expired certificate", "expired", withServersCertificate([] { return trustedCa().issueExpired(); })},
        {"expired certificate, errors ignored", "expiredIgnored",
            withServersCertificate([] { return trustedCa().issueExpired(); }, true)},
        {"certificate that is not valid yet", "notYetValid",
            withServersCertificate([] { return trustedCa().issueNotYetValid(); })},
        {"closes the connection during the handshake", "closes",
            withHandshakeAnswered(test::closeConnection())},
        {"resets the connection during the handshake", "resets",
            withHandshakeAnswered(test::resetConnection())},
        {"refuses the handshake with an alert", "accessDenied",
            withHandshakeAnswered({alert(accessDenied), test::closeConnection()})},
        {"speaks no version of TLS that the client does", "protocolVersion",
            withHandshakeAnswered({alert(protocolVersion), test::closeConnection()})},
        {"answers the handshake with something else", "notTls",
            withHandshakeAnswered({test::raw("HTTP/1.1 400 Bad Request\r\n\r\n"), test::closeConnection()})},
        {"knows no TLS", "noTls",
            [](Connection connection) {
                const Slapd slapd;
                const std::string url = slapd.url();
                return outcome(
                    connection == Connection::ldaps ? "ldaps" + url.substr(4) : url, connection, false);
            }},
        {"refuses StartTLS for now", "unavailable",
            [](Connection connection) {
                ScriptedServer server;
                server.expectStartTls().answer(test::result(LDAP_UNAVAILABLE).diagnostic("not now"));
                return outcome(server.url(), connection, false);
            },
            {Connection::startTls}},
        {"expects TLS from the first byte", "tlsPort",
            [](Connection connection) {
                const Slapd slapd(withCertificate(issue({})));
                return outcome("ldap" + slapd.ldapsUrl().substr(5), connection, false);
            },
            {Connection::startTls}},
    };
    return all;
}

struct Row
{
    const Case* server;
    Connection connection;
};

std::vector<Row> rows()
{
    std::vector<Row> rows;
    for (const Case& server : cases()) {
        for (const Connection connection : server.connections)
            rows.push_back({&server, connection});
    }
    return rows;
}

std::string trimmed(const std::string& text) { return qt(text).trimmed().toStdString(); }

/// The cells of the document's table, by the first two of them.
std::map<std::pair<std::string, std::string>, std::vector<std::string>> documentedRows()
{
    std::map<std::pair<std::string, std::string>, std::vector<std::string>> rows;
    std::istringstream document(test::readFile(TAVO_TLS_DOCUMENT));
    for (std::string line; std::getline(document, line);) {
        std::vector<std::string> cells;
        std::istringstream stream(line);
        for (std::string cell; std::getline(stream, cell, '|');)
            cells.push_back(trimmed(cell));
        if (cells.size() == 5 && (cells[2] == "StartTLS" || cells[2] == "ldaps"))
            rows[{cells[1], cells[2]}] = {cells[3], cells[4]};
    }
    return rows;
}

/// What a cell says, line by line.
std::vector<std::string> alternatives(const std::string& cell)
{
    std::vector<std::string> lines;
    for (const QString& line : qt(cell).split("<br>"_s))
        lines.push_back(line.toStdString());
    return lines;
}

class TlsTest : public ::testing::Test
{
protected:
    TlsTest() { setenv("LDAPTLS_CACERT", trustedCa().certificate().c_str(), 1); }
};

class TlsOutcomeTest : public TlsTest, public ::testing::WithParamInterface<Row>
{};

TEST_P(TlsOutcomeTest, IsTheDocumentedOne)
{
    const Row& row = GetParam();
    const std::string measured = row.server->attempt(row.connection);
    const auto documented = documentedRows();
    const auto found = documented.find({row.server->server, nameOf(row.connection)});
    ASSERT_NE(found, documented.end())
        << row.server->server << ", " << nameOf(row.connection) << ": " << measured;
    EXPECT_THAT(alternatives(found->second.at(tlsPackage() == "GnuTLS" ? 0 : 1)), Contains(measured));
}

void PrintTo(const Row& row, std::ostream* out) { *out << row.server->name + "_" + nameOf(row.connection); }

INSTANTIATE_TEST_SUITE_P(
    Servers, TlsOutcomeTest, ::testing::ValuesIn(rows()), ::testing::PrintToStringParamName());

TEST_F(TlsTest, HasNoDocumentedRowThatIsNotMeasured)
{
    auto documented = documentedRows();
    for (const Row& row : rows())
        documented.erase({row.server->server, nameOf(row.connection)});
    EXPECT_THAT(documented, ::testing::IsEmpty());
}

TEST_F(TlsTest, UsesTheTlsLibraryThatIsMeantToBeTested)
{
    const char* const meant = std::getenv("TAVO_TEST_TLS_BACKEND");
    EXPECT_EQ(tlsPackage(), meant == nullptr ? tlsPackage() : std::string(meant));
    EXPECT_THAT((std::vector<std::string>{"GnuTLS", "OpenSSL"}), Contains(tlsPackage()));
}

TEST_F(TlsTest, StrictAndLenientSessionsDoNotAffectEachOther)
{
    const Slapd slapd(withCertificate(otherCa().issue()));
    for (const Connection connection : {Connection::startTls, Connection::ldaps}) {
        const std::string url = connection == Connection::ldaps ? slapd.ldapsUrl() : slapd.url();
        const bool startTls = connection == Connection::startTls;
        Session before(urlOf(url), startTls, true);
        before.bind("cn=admin,dc=example,dc=test"_s, "secret"_s);
        EXPECT_NE(outcome(url, connection, false), "accepted");
        EXPECT_EQ(outcome(url, connection, true), "accepted");
        EXPECT_NE(outcome(url, connection, false), "accepted");
        EXPECT_EQ(before.whoAmI(), "dn:cn=admin,dc=example,dc=test"_s) << "the first one is still up";
    }
}

TEST_F(TlsTest, AFailedSessionLeavesNothingBehindForTheNext)
{
    const Slapd bad(withCertificate(otherCa().issue()));
    const Slapd good(withCertificate(trustedCa().issue()));
    for (const Connection connection : {Connection::startTls, Connection::ldaps}) {
        EXPECT_NE(outcome(connection == Connection::ldaps ? bad.ldapsUrl() : bad.url(), connection, false),
            "accepted");
        const std::string url = connection == Connection::ldaps ? good.ldapsUrl() : good.url();
        Session session(urlOf(url), connection == Connection::startTls, false);
        EXPECT_THROW(session.bind("cn=admin,dc=example,dc=test"_s, "wrong"_s), InvalidCredentialsError);
        EXPECT_NO_THROW(session.bind("cn=admin,dc=example,dc=test"_s, "secret"_s));
    }
}

TEST_F(TlsTest, AnUpgradeWithoutItsContextSendsNothingInTheClear)
{
    Slapd slapd(withCertificate(issue({})));
    for (const bool isConnected : {false, true}) {
        Session session(urlOf(slapd.url()), false, false);
        if (isConnected)
            session.whoAmI();
        // The host asks for what no context can be made of.
        ldap_set_option(nullptr, LDAP_OPT_X_TLS_CIPHER_SUITE, "NO-SUCH-SUITE");
        EXPECT_THROW(session.startTls(), BaseError);
        ldap_set_option(nullptr, LDAP_OPT_X_TLS_CIPHER_SUITE, nullptr);

        EXPECT_THROW(session.bind("cn=admin,dc=example,dc=test"_s, "secret"_s), BaseError);
        EXPECT_THROW(session.whoAmI(), BaseError);
    }
    slapd.stop();
    EXPECT_THAT(slapd.log(), ::testing::Not(HasSubstr("BIND")));
    EXPECT_THAT(slapd.log(), HasSubstr("WHOAMI")) << "the log tells what was received";
}

TEST_F(TlsTest, AServerThatStaysSilentIsWaitedFor)
{
    const test::Gate reached;
    const test::Gate hangUp;
    ScriptedServer server;
    server.greet(
        {test::awaitRawInput(), test::opens(reached), test::waitFor(hangUp), test::closeConnection()});
    auto attempt = std::async(
        std::launch::async, [&] { return outcome(server.url("ldaps"), Connection::ldaps, false); });
    reached.wait("the handshake");
    EXPECT_EQ(attempt.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    hangUp.open();
    EXPECT_THAT(attempt.get(), HasSubstr("`BaseError` -1"));
}

TEST_F(TlsTest, ConnectionTestAndManagerReportTheSame)
{
    const Slapd slapd(withCertificate(trustedCa().issueExpired()));
    for (const bool startTls : {true, false}) {
        Settings settings;
        settings.uri = urlOf(startTls ? slapd.url() : slapd.ldapsUrl());
        settings.startTls = startTls;
        settings.adminDn = qt(slapd.rootDn());
        settings.adminPassword = qt(slapd.rootPassword());
        EXPECT_FALSE(testLdapConnection(settings));
        EXPECT_THROW(createManagerOrThrow(settings), BaseError);
        settings.ignoreCertificateErrors = true;
        EXPECT_TRUE(testLdapConnection(settings));
        EXPECT_NE(createManagerOrThrow(settings), nullptr);
    }
}

} // namespace
} // namespace tavo::ldap
