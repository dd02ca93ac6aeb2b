#pragma once

#include "temporary_directory.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavo::test {

/// A server's certificate and its private key, as PEM files.
struct ServerCertificate
{
    std::filesystem::path certificate;
    std::filesystem::path key;
};

/// The contents of a server's certificate. The defaults make one that is valid for a server on 127.0.0.1.
struct CertificateOptions
{
    std::string commonName = "test server";
    /// In OpenSSL's notation: "IP:127.0.0.1", "DNS:ldap.example.test". `localhost` is of no use: libldap
    /// looks for the machine's full name instead.
    std::vector<std::string> subjectAltNames = {"IP:127.0.0.1"};
    /// The start and the end of its validity, counted from now.
    std::chrono::seconds notBefore = -std::chrono::hours(24);
    std::chrono::seconds notAfter = std::chrono::hours(24);
    /// What it is for, in OpenSSL's notation; "clientAuth" for a client's.
    std::string extendedKeyUsage = "serverAuth";
    /// Signed with its own key instead of the authority's.
    bool isSelfSigned = false;
};

/// A private certificate authority. Its files live as long as this object. Every failure of the crypto
/// library throws std::runtime_error.
class TestCa
{
public:
    explicit TestCa(const std::string& name = "Test authority");
    ~TestCa();
    TestCa(const TestCa&) = delete;
    TestCa& operator=(const TestCa&) = delete;

    /// What a client has to trust, as a PEM file.
    std::filesystem::path certificate() const;

    /// Makes a certificate for a server; every call gives other files.
    ServerCertificate issue(const CertificateOptions& options = {});

    /// Certificates that a client must refuse, each for one reason.
    ServerCertificate issueExpired();
    ServerCertificate issueNotYetValid();
    ServerCertificate issueForOtherHost();
    ServerCertificate issueSelfSigned();

    /// Makes a list of the authority's revoked certificates, as a PEM file; every call gives another one.
    std::filesystem::path revoke(const std::vector<ServerCertificate>& revoked);

    /// Makes a directory, of the kind that OpenSSL expects, that holds the authority's certificate and, if
    /// given, its list of revoked ones; every call gives another one.
    std::filesystem::path makeDirectory(const std::optional<std::filesystem::path>& revocations = {});

private:
    struct Identity;

    TemporaryDirectory m_directory;
    std::unique_ptr<Identity> m_identity;
    long m_issued = 1;
    int m_made = 0;
};

} // namespace tavo::test
