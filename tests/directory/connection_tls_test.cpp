// What a connection with options trusts, shows and demands, on ldaps and StartTLS, with either TLS library.
#include "directory_test.h"
#include "support/test_ca.h"
#include <ldap/connection_options.h>
#include <ldap/error.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace tavo::ldap {
namespace {

using test::qt;
using test::ServerCertificate;
using test::Slapd;
using test::TestCa;
using test::urlOf;

using ::testing::EndsWith;

TestCa& ca()
{
    static TestCa ca;
    return ca;
}

TestCa& otherCa()
{
    static TestCa ca("Other authority");
    return ca;
}

const ServerCertificate& certificate()
{
    static const ServerCertificate certificate = ca().issue();
    return certificate;
}

/// A server with these lines in its configuration.
std::unique_ptr<Slapd> makeServer(std::vector<std::string> lines = {})
{
    test::SlapdOptions options;
    options.globalLines = std::move(lines);
    options.tls = test::SlapdTls{ca().certificate(), certificate().certificate, certificate().key};
    return std::make_unique<Slapd>(std::move(options));
}

/// A server that doesn't speak TLS 1.3. One on OpenSSL can't be told so; the client is told instead, which is on
/// OpenSSL then, too.
std::unique_ptr<Slapd> makeOldServer()
{
    try {
        return makeServer({"TLSCipherSuite NORMAL:-VERS-TLS1.3"});
    } catch (const std::runtime_error&) {
        const int newest = LDAP_OPT_X_TLS_PROTOCOL_TLS1_2;
        ldap_set_option(nullptr, LDAP_OPT_X_TLS_PROTOCOL_MAX, &newest);
        return makeServer();
    }
}

Slapd& server()
{
    static const std::unique_ptr<Slapd> server = makeServer();
    return *server;
}

int countOf(const std::string& part, const std::string& text)
{
    int count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

QByteArray derOf(const ServerCertificate& one)
{
    std::FILE* const file = std::fopen(one.certificate.c_str(), "r");
    X509* const parsed = PEM_read_X509(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    unsigned char* der = nullptr;
    const int size = i2d_X509(parsed, &der);
    const QByteArray bytes(reinterpret_cast<const char*>(der), size);
    OPENSSL_free(der);
    X509_free(parsed);
    return bytes;
}

ConnectionOptions trusting(const std::filesystem::path& authorities)
{
    ConnectionOptions options;
    options.trustedCertificates = qt(authorities);
    return options;
}

std::optional<BaseError> errorOf(const std::function<void()>& call)
{
    try {
        call();
        return std::nullopt;
    } catch (const BaseError& error) {
        return error;
    }
}

enum class Upgrade
{
    none,
    startTls
};

/// By ldaps and by StartTLS. The host trusts the other authority alone.
class ConnectionTlsTest : public ::testing::TestWithParam<Upgrade>
{
protected:
    ConnectionTlsTest()
    {
        setHostsAuthority(otherCa());
        const int anyVersion = 0;
        ldap_set_option(nullptr, LDAP_OPT_X_TLS_PROTOCOL_MAX, &anyVersion);
    }

    static void setHostsAuthority(const TestCa& authority)
    {
        ldap_set_option(nullptr, LDAP_OPT_X_TLS_CACERTFILE, authority.certificate().c_str());
    }

    static std::unique_ptr<Session> connect(const ConnectionOptions& options, const Slapd& to = server())
    {
        const bool startsTls = GetParam() == Upgrade::startTls;
        return std::make_unique<Session>(
            urlOf(startsTls ? to.url() : to.ldapsUrl()), startsTls, false, options);
    }

    static std::optional<BaseError> refusal(const ConnectionOptions& options, const Slapd& by = server())
    {
        return errorOf([&] { connect(options, by)->bind({}, {}); });
    }
};

TEST_P(ConnectionTlsTest, TrustsItsOwnAuthoritiesInPlaceOfTheHosts)
{
    EXPECT_FALSE(refusal(trusting(ca().certificate())));
    EXPECT_FALSE(refusal(trusting(ca().makeDirectory())));
    const auto refused = refusal(trusting(otherCa().certificate()));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->connectFailure.kind, ConnectFailure::Kind::tls);

    setHostsAuthority(ca());
    EXPECT_TRUE(refusal(trusting(otherCa().certificate())));
    EXPECT_TRUE(refusal(trusting(otherCa().makeDirectory())));
}

TEST_P(ConnectionTlsTest, TrustsTheHostsAuthoritiesWithoutAnyOfItsOwn)
{
    ConnectionOptions options;
    options.connectTimeout = std::chrono::hours(1);
    EXPECT_TRUE(refusal(options));
    setHostsAuthority(ca());
    EXPECT_FALSE(refusal(options));
}

TEST_P(ConnectionTlsTest, TrustsNobodyWhenItsAuthoritiesAreMissing)
{
    setHostsAuthority(ca());
    EXPECT_TRUE(refusal(trusting("/does/not/exist.pem")));
}

TEST_P(ConnectionTlsTest, NeedsNoAuthorityWhereCertificateErrorsAreIgnored)
{
    const bool startsTls = GetParam() == Upgrade::startTls;
    Session session(urlOf(startsTls ? server().url() : server().ldapsUrl()), startsTls, true,
        trusting("/does/not/exist.pem"));
    session.bind({}, {});
}

TEST_P(ConnectionTlsTest, ShowsItsOwnCertificate)
{
    const auto demanding = makeServer({"TLSVerifyClient demand"});
    const ServerCertificate own =
        ca().issue({.commonName = "client", .subjectAltNames = {}, .extendedKeyUsage = "clientAuth"});
    ConnectionOptions options = trusting(ca().certificate());
    EXPECT_TRUE(refusal(options, *demanding));
    options.clientCertificate = qt(own.certificate);
    options.clientKey = qt(own.key);
    EXPECT_FALSE(refusal(options, *demanding));

    const test::TemporaryDirectory directory;
    const auto both = directory.write("both.pem", test::readFile(own.certificate) + test::readFile(own.key));
    options.clientCertificate = qt(both);
    options.clientKey = std::nullopt;
    EXPECT_FALSE(refusal(options, *demanding));
}

// GnuTLS ignores the option of the client library, so this is looked at after the handshake.
TEST_P(ConnectionTlsTest, TakesNoOlderVersionThanItsMinimum)
{
    ConnectionOptions options = trusting(ca().certificate());
    options.minimumTlsVersion = TlsVersion::tls13;
    EXPECT_FALSE(refusal(options));

    const auto old = makeOldServer();
    for (const TlsVersion minimum : {TlsVersion::tls10, TlsVersion::tls11, TlsVersion::tls12}) {
        options.minimumTlsVersion = minimum;
        EXPECT_FALSE(refusal(options, *old));
    }
    options.minimumTlsVersion = TlsVersion::tls13;
    const auto refused = refusal(options, *old);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->connectFailure.kind, ConnectFailure::Kind::tls);
    old->stop();
    // Those of the three that were good enough.
    EXPECT_EQ(countOf(" BIND dn=", old->log()), 3);
}

TEST_P(ConnectionTlsTest, TellsWhatItHasAgreedOn)
{
    const auto facts = connect(trusting(ca().certificate()))->tlsFacts();
    ASSERT_TRUE(facts);
    EXPECT_THAT(facts->version.toStdString(), EndsWith("1.3"));
    EXPECT_FALSE(facts->cipher.isEmpty());
    EXPECT_EQ(facts->certificate, derOf(certificate()));
}

TEST_P(ConnectionTlsTest, TellsTheSameAboutASessionWithoutOptions)
{
    setHostsAuthority(ca());
    const bool startsTls = GetParam() == Upgrade::startTls;
    Session session(urlOf(startsTls ? server().url() : server().ldapsUrl()), startsTls, false);
    session.bind({}, {});
    ASSERT_TRUE(session.tlsFacts());
    EXPECT_EQ(session.tlsFacts()->certificate, derOf(certificate()));
}

TEST_P(ConnectionTlsTest, ServesAFetch)
{
    Settings settings;
    const bool startsTls = GetParam() == Upgrade::startTls;
    settings.uri = urlOf(startsTls ? server().url() : server().ldapsUrl());
    settings.startTls = startsTls;
    ConnectionOptions options = trusting(ca().certificate());
    options.connectTimeout = options.answerTimeout = options.pageSilenceTimeout = std::chrono::hours(1);
    options.maximumMessageSize = 100'000;
    options.maximumAnswerSize = 1'000'000;
    options.interrupter = Interrupter();
    const auto manager = createManagerOrThrow(settings, options);
    test::Deliveries<User> users;
    manager->fetchUsersAsync(users.handler(), {qt(server().suffix()), {}});
    EXPECT_EQ(users.waitForEnd(), Result::ok);
}

// A certificate is for a name, which the client library must be told although it doesn't connect.
TEST_P(ConnectionTlsTest, RefusesACertificateForAnotherHost)
{
    const ServerCertificate others = ca().issueForOtherHost();
    test::SlapdOptions options;
    options.tls = test::SlapdTls{ca().certificate(), others.certificate, others.key};
    const Slapd impostor(std::move(options));
    const auto refused = refusal(trusting(ca().certificate()), impostor);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->connectFailure.kind, ConnectFailure::Kind::tls);
}

INSTANTIATE_TEST_SUITE_P(Upgrades, ConnectionTlsTest, ::testing::Values(Upgrade::none, Upgrade::startTls),
    [](const auto& upgrade) { return upgrade.param == Upgrade::none ? "Ldaps" : "StartTls"; });

} // namespace
} // namespace tavo::ldap
