// What a session makes of the host's TLS options, held against a plain program on libldap with the same
// configuration: a strict session must not accept what libldap refuses, nor the other way round, on either TLS
// library. Each attempt is a process of its own (tls_program), because libldap reads its configuration once.
//
// Every case runs with both TLS libraries. Where one of them ignores an option, that is what is expected.
#include "directory_test.h"
#include "support/child_process.h"
#include "support/temporary_directory.h"
#include "support/test_ca.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace tavo::ldap {
namespace {

using test::CertificateOptions;
using test::ServerCertificate;
using test::Slapd;
using test::TestCa;

using Environment = std::map<std::string, std::optional<std::string>>;

/// Who accepts the server: a strict session, one that ignores certificate errors, and libldap with the same
/// two.
struct Acceptance
{
    bool strict;
    bool lenient;
    bool lenientLibldap;
};

constexpr Acceptance kAll{true, true, true};
constexpr Acceptance kNone{false, false, false};
/// The certificate is no good.
constexpr Acceptance kLenient{false, true, true};
/// A file can't be used that a session which ignores certificate errors has no use for. libldap wants it all
/// the same.
constexpr Acceptance kLenientSession{false, true, false};

bool isOnGnuTls()
{
    char* package = nullptr;
    ldap_get_option(nullptr, LDAP_OPT_X_TLS_PACKAGE, &package);
    const std::string name = package == nullptr ? "" : package;
    ldap_memfree(package);
    if (name != "GnuTLS" && name != "OpenSSL")
        throw std::runtime_error("not a TLS library that the expectations are for: " + name);
    return name == "GnuTLS";
}

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

const ServerCertificate& server()
{
    static const ServerCertificate certificate = ca().issue();
    return certificate;
}

const ServerCertificate& serverWithoutSan()
{
    static const ServerCertificate certificate =
        ca().issue({.commonName = "127.0.0.1", .subjectAltNames = {}});
    return certificate;
}

const ServerCertificate& client()
{
    static const ServerCertificate certificate =
        ca().issue({.commonName = "client", .subjectAltNames = {}, .extendedKeyUsage = "clientAuth"});
    return certificate;
}

const test::TemporaryDirectory& scratch()
{
    static const test::TemporaryDirectory directory;
    return directory;
}

std::string missing() { return scratch().path() / "missing.pem"; }

std::string fileWithoutCertificates() { return scratch().write("empty.pem", "no certificate\n"); }

/// The hash of the certificate's key, as TLS_PEERKEY_HASH wants it.
std::string keyHash(const ServerCertificate& certificate)
{
    std::FILE* const file = std::fopen(certificate.certificate.c_str(), "r");
    X509* const parsed = PEM_read_X509(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    unsigned char* key = nullptr;
    const int size = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(parsed), &key);
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned hashSize = 0;
    EVP_Digest(key, static_cast<std::size_t>(size), hash, &hashSize, EVP_sha256(), nullptr);
    unsigned char text[2 * EVP_MAX_MD_SIZE];
    EVP_EncodeBlock(text, hash, static_cast<int>(hashSize));
    OPENSSL_free(key);
    X509_free(parsed);
    return std::string("sha256:") + reinterpret_cast<const char*>(text);
}

/// The two TLS libraries name cipher suites differently. With TLS 1.3, whose suites are no part of them for
/// OpenSSL, any server would do.
Environment cipherSuite(const std::string& gnuTls, const std::string& openSsl)
{
    return {{"LDAPTLS_CIPHER_SUITE", isOnGnuTls() ? gnuTls : openSsl}, {"LDAPTLS_PROTOCOL_MAX", "3.3"}};
}

struct Case
{
    std::string name;
    /// Added to a configuration that trusts the server's authority, and nobody else.
    std::function<Environment()> environment;
    Acceptance onGnuTls;
    Acceptance onOpenSsl;
    const ServerCertificate& (*certificate)() = &server;
    /// Lines of the server's configuration.
    std::vector<std::string> serverLines = {};
};

Case same(const std::string& name, const std::function<Environment()>& environment, Acceptance acceptance)
{
    return {name, environment, acceptance, acceptance};
}

Case demandingClientCertificate(Case usual)
{
    usual.serverLines = {"TLSVerifyClient demand"};
    return usual;
}

Case withoutSan(Case usual)
{
    usual.certificate = &serverWithoutSan;
    return usual;
}

std::vector<Case> authorityCases()
{
    return {
        same(
            "authority", [] { return Environment(); }, kAll),
        same(
            "otherAuthority",
            [] {
                return Environment{
                    {"LDAPTLS_CACERT", otherCa().certificate()}, {"SSL_CERT_FILE", ca().certificate()}};
            },
            kLenient),
        same(
            "missingAuthority",
            [] {
                return Environment{{"LDAPTLS_CACERT", missing()}, {"SSL_CERT_FILE", ca().certificate()}};
            },
            kLenientSession),
        {"authorityWithoutCertificates",
            [] {
                return Environment{
                    {"LDAPTLS_CACERT", fileWithoutCertificates()}, {"SSL_CERT_FILE", ca().certificate()}};
            },
            kLenient, kLenientSession},
        {"noAuthority",
            [] {
                return Environment{{"LDAPTLS_CACERT", ""}, {"SSL_CERT_FILE", ca().certificate()}};
            },
            kLenient, kAll},
        same(
            "directory",
            [] {
                return Environment{{"LDAPTLS_CACERT", ""}, {"LDAPTLS_CACERTDIR", ca().makeDirectory()}};
            },
            kAll),
        same(
            "directoryOfOtherAuthority",
            [] {
                return Environment{{"LDAPTLS_CACERT", ""}, {"LDAPTLS_CACERTDIR", otherCa().makeDirectory()},
                    {"SSL_CERT_FILE", ca().certificate()}};
            },
            kLenient),
        same(
            "missingDirectory",
            [] {
                return Environment{{"LDAPTLS_CACERT", ""}, {"LDAPTLS_CACERTDIR", missing()},
                    {"SSL_CERT_FILE", ca().certificate()}};
            },
            kLenient),
        same(
            "directoryBesideMissingAuthority",
            [] {
                return Environment{
                    {"LDAPTLS_CACERT", missing()}, {"LDAPTLS_CACERTDIR", ca().makeDirectory()}};
            },
            kLenientSession),
        same(
            "authorityInMemory",
            [] {
                return Environment{{"LDAPTLS_CACERT", ""}, {"TAVO_CACERT", ca().certificate()}};
            },
            kAll),
        same(
            "otherAuthorityInMemory",
            [] {
                return Environment{{"LDAPTLS_CACERT", ""}, {"TAVO_CACERT", otherCa().certificate()},
                    {"SSL_CERT_FILE", ca().certificate()}};
            },
            kLenient),
    };
}

std::vector<Case> revocationCases()
{
    const auto file = [](const std::vector<ServerCertificate>& revoked) {
        return Environment{{"LDAPTLS_CRLFILE", ca().revoke(revoked)}};
    };
    const auto directory = [](const std::string& check,
                               const std::optional<std::vector<ServerCertificate>>& revoked) {
        std::optional<std::filesystem::path> list;
        if (revoked)
            list = ca().revoke(*revoked);
        return Environment{{"LDAPTLS_CACERT", ""}, {"LDAPTLS_CACERTDIR", ca().makeDirectory(list)},
            {"LDAPTLS_CRLCHECK", check}};
    };
    return {
        {"revoked", [=] { return file({server()}); }, kLenient, kAll},
        same(
            "otherRevoked", [=] { return file({serverWithoutSan()}); }, kAll),
        {"missingRevocations",
            [] {
                return Environment{{"LDAPTLS_CRLFILE", missing()}};
            },
            kLenientSession, kAll},
        {"peerRevoked", [=] { return directory("peer", {{server()}}); }, kAll, kLenient},
        {"peerCheckedWithoutRevocations", [=] { return directory("peer", {}); }, kAll, kLenient},
        {"chainRevoked", [=] { return directory("all", {{server()}}); }, kAll, kLenient},
        same(
            "chainNotRevoked", [=] { return directory("all", {{serverWithoutSan()}}); }, kAll),
        same(
            "revokedUnchecked", [=] { return directory("none", {{server()}}); }, kAll),
    };
}

std::vector<Case> protocolCases()
{
    const auto one = [](const std::string& variable, const std::string& value) {
        return [=] { return Environment{{variable, value}}; };
    };
    return {
        same(
            "cipherSuite",
            [] {
                return cipherSuite(
                    "NORMAL:-VERS-ALL:+VERS-TLS1.2:-KX-ALL:+ECDHE-ECDSA", "ECDHE-ECDSA-AES256-GCM-SHA384");
            },
            kAll),
        same(
            "cipherSuiteForOtherKeys",
            [] { return cipherSuite("NORMAL:-VERS-ALL:+VERS-TLS1.2:-KX-ALL:+RSA", "AES256-GCM-SHA384"); },
            kNone),
        same(
            "unknownCipherSuite", [] { return cipherSuite("NO-SUCH-SUITE", "NO-SUCH-SUITE"); }, kNone),
        same("protocolMin", one("LDAPTLS_PROTOCOL_MIN", "3.3"), kAll),
        {"protocolMinTooHigh", one("LDAPTLS_PROTOCOL_MIN", "3.5"), kAll, kNone},
        same("protocolMax", one("LDAPTLS_PROTOCOL_MAX", "3.3"), kAll),
        {"protocolMaxTooLow", one("LDAPTLS_PROTOCOL_MAX", "3.1"), kAll, kNone},
        same("curve", one("LDAPTLS_ECNAME", "P-256"), kAll),
        {"curveThatTheServerLacks", one("LDAPTLS_ECNAME", "brainpoolP256r1"), kAll, kNone},
        {"unknownCurve", one("LDAPTLS_ECNAME", "no-such-curve"), kAll, kNone},
    };
}

std::vector<Case> certificateCases()
{
    const auto files = [](const std::string& certificate, const std::string& key) {
        return [=] { return Environment{{"LDAPTLS_CERT", certificate}, {"LDAPTLS_KEY", key}}; };
    };
    return {
        demandingClientCertificate(same(
            "noClientCertificate", [] { return Environment(); }, kNone)),
        demandingClientCertificate(same(
            "clientCertificate", [=] { return files(client().certificate, client().key)(); }, kAll)),
        same(
            "clientCertificateThatNobodyWants", [=] { return files(client().certificate, client().key)(); },
            kAll),
        same(
            "missingClientCertificate", [=] { return files(missing(), client().key)(); }, kNone),
        same(
            "missingClientKey", [=] { return files(client().certificate, missing())(); }, kNone),
        same(
            "keyOfOtherCertificate", [=] { return files(client().certificate, server().key)(); }, kNone),
        {"clientCertificateWithoutKey",
            [] {
                return Environment{{"LDAPTLS_CERT", client().certificate}};
            },
            kNone, kAll},
        demandingClientCertificate(same(
            "clientCertificateInMemory",
            [] {
                return Environment{{"TAVO_CERT", client().certificate}, {"TAVO_KEY", client().key}};
            },
            kAll)),
        {"clientCertificateInMemoryWithoutKey",
            [] {
                return Environment{{"TAVO_CERT", client().certificate}};
            },
            kNone, kAll},
    };
}

/// What a handle inherits by itself.
std::vector<Case> inheritedCases()
{
    return {
        withoutSan(same(
            "nameInCommonName", [] { return Environment(); }, kAll)),
        withoutSan(same(
            "nameInCommonNameThatDoesNotCount",
            [] {
                return Environment{{"LDAPTLS_REQSAN", "demand"}};
            },
            kLenient)),
        same(
            "nameInSan",
            [] {
                return Environment{{"LDAPTLS_REQSAN", "demand"}};
            },
            kAll),
        same(
            "pinnedKey",
            [] {
                return Environment{{"LDAPTLS_PEERKEY_HASH", keyHash(server())}};
            },
            kAll),
        same(
            "otherPinnedKey",
            [] {
                return Environment{{"LDAPTLS_PEERKEY_HASH", keyHash(client())}};
            },
            kNone),
    };
}

std::vector<Case> allCases()
{
    std::vector<Case> all;
    for (const auto& some :
        {authorityCases(), revocationCases(), protocolCases(), certificateCases(), inheritedCases()})
        all.insert(all.end(), some.begin(), some.end());
    return all;
}

/// One of the program's attempts.
struct Attempt
{
    std::string program;
    std::string connection;
    bool isStrict;

    std::string description() const
    {
        return program + ", " + connection + ", " + (isStrict ? "strict" : "lenient");
    }

    bool isAcceptedBy(const Acceptance& acceptance) const
    {
        if (connection == "plain")
            return true;
        if (isStrict)
            return acceptance.strict;
        return program == "raw" ? acceptance.lenientLibldap : acceptance.lenient;
    }

    /// How the line begins that the program prints.
    std::string expected(const Acceptance& acceptance) const
    {
        if (isAcceptedBy(acceptance))
            return "accepted";
        const bool isFileUnusable = acceptance.lenient && !acceptance.lenientLibldap;
        return program == "session" && isFileUnusable
                   ? "refused: set LDAP_OPT_X_TLS_NEWCTX: Can't contact LDAP server"
                   : "refused: ";
    }
};

std::vector<Attempt> attempts()
{
    std::vector<Attempt> all;
    for (const char* program : {"raw", "session"}) {
        for (const char* connection : {"plain", "StartTLS", "ldaps"}) {
            for (const bool isStrict : {true, false})
                all.push_back({program, connection, isStrict});
        }
    }
    return all;
}

/// The last line that the program prints.
std::string outcome(const Attempt& attempt, const Slapd& slapd, Environment environment)
{
    const test::TemporaryDirectory directory;
    // Nothing of this user's, and nothing of the machine's authorities.
    environment.insert({{"HOME", directory.path()}, {"LDAPNOINIT", std::nullopt}, {"LDAPCONF", std::nullopt},
        {"LDAPRC", std::nullopt}, {"LDAPTLS_CACERT", ca().certificate()}, {"LDAPTLS_CACERTDIR", ""},
        {"SSL_CERT_FILE", otherCa().certificate()}, {"SSL_CERT_DIR", directory.path()}});
    const std::string url = attempt.connection == "ldaps" ? slapd.ldapsUrl() : slapd.url();
    const int status = test::run({.words = {TAVO_TLS_PROGRAM, attempt.program, attempt.connection,
                                      attempt.isStrict ? "strict" : "lenient", url},
        .log = directory.path() / "log",
        .environment = environment,
        .directory = directory.path()});
    std::istringstream log(test::readFile(directory.path() / "log"));
    std::string last;
    for (std::string line; std::getline(log, line);)
        last = line;
    return status == 0 ? last : "exit status " + std::to_string(status) + ": " + last;
}

class HostsTlsOptionsTest : public ::testing::TestWithParam<Case>
{};

TEST_P(HostsTlsOptionsTest, HoldForASessionAsForLibldap)
{
    const Case& tested = GetParam();
    const ServerCertificate& certificate = tested.certificate();
    const Slapd slapd({.globalLines = tested.serverLines,
        .tls = test::SlapdTls{ca().certificate(), certificate.certificate, certificate.key}});
    const Environment environment = tested.environment();
    const Acceptance& acceptance = isOnGnuTls() ? tested.onGnuTls : tested.onOpenSsl;
    for (const Attempt& attempt : attempts()) {
        EXPECT_THAT(outcome(attempt, slapd, environment), ::testing::StartsWith(attempt.expected(acceptance)))
            << attempt.description();
    }
}

void PrintTo(const Case& tested, std::ostream* out) { *out << tested.name; }

INSTANTIATE_TEST_SUITE_P(Configurations, HostsTlsOptionsTest, ::testing::ValuesIn(allCases()),
    ::testing::PrintToStringParamName());

} // namespace
} // namespace tavo::ldap
