#pragma once

#include "child_process.h"
#include "reserved_port.h"
#include "temporary_directory.h"
#include "test_ca.h"

#include <optional>
#include <string>

namespace tavo::test {

/// A real Active Directory domain of one's own, served by Samba: on a loopback address of its own (for the
/// ports are Active Directory's, 389 and 636), in a temporary directory, gone with this object. It offers
/// LDAP alone, with a certificate of its own authority, and takes simple binds only over TLS, as its default
/// is. It answers as soon as the constructor has returned. When the test has failed by the time this object
/// goes, the server's log goes to standard error.
///
/// Not thread-safe; the thread that starts the server must outlive it (see ChildProcess).
class Samba
{
public:
    /// Serves a new domain `ad.test` with these entries added, as LDIF, parents first. What only the domain's
    /// administrator may set (`unicodePwd`, `userAccountControl`) may be in it. Throws std::runtime_error,
    /// with Samba's own words, when it isn't installed or doesn't start.
    explicit Samba(const std::string& ldif = {});
    ~Samba();
    Samba(const Samba&) = delete;
    Samba& operator=(const Samba&) = delete;

    std::string url() const { return "ldap://" + m_address; }
    std::string ldapsUrl() const { return "ldaps://" + m_address; }

    /// What a client has to trust, as a PEM file.
    std::filesystem::path caCertificate() const { return m_ca.certificate(); }

    static constexpr const char* suffix = "DC=ad,DC=test";
    static constexpr const char* domain = "ad.test";
    static constexpr const char* netbiosDomain = "ADTEST";
    static constexpr const char* administrator = "Administrator@ad.test";
    static constexpr const char* password = "Passw0rd!";

    /// What the server has said so far.
    std::string log() const;

private:
    std::string configuration() const;
    void start();

    TemporaryDirectory m_directory;
    // Nobody else has this port, so nobody else's server has the address that is made of it.
    ReservedPort m_number;
    std::string m_address;
    TestCa m_ca;
    ServerCertificate m_certificate;
    std::optional<ChildProcess> m_process;
};

} // namespace tavo::test
