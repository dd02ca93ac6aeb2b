#pragma once

#include "child_process.h"
#include "reserved_port.h"
#include "temporary_directory.h"
#include "test_ca.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavo::test {

struct SambaOptions
{
    /// Entries of the domain, as LDIF, parents first. What only the domain's administrator may set
    /// (`unicodePwd`, `userAccountControl`) may be in it. Domains with the same entries are made once.
    std::string ldif = {};
    /// Lines of smb.conf: `ldap server require strong auth = no` admits simple binds without TLS.
    std::vector<std::string> lines = {};
};

/// A private Active Directory domain, served by Samba in a temporary directory; it lives as long as this
/// object. It has a loopback address of its own, because its ports are fixed: 389 and 636. It offers only
/// LDAP, with a certificate of its own authority that is also valid for a relay on 127.0.0.1, and accepts
/// simple binds only over TLS, as is its default. It is ready when the constructor returns. If the test has
/// failed by the time of destruction, the server's log is written to standard error.
///
/// Not thread-safe; the thread that starts the server must outlive it (see ChildProcess).
class Samba
{
public:
    /// Serves a new domain `ad.test`. Throws std::runtime_error, with Samba's own words, when it isn't
    /// installed or doesn't start.
    explicit Samba(SambaOptions options = {});
    ~Samba();
    Samba(const Samba&) = delete;
    Samba& operator=(const Samba&) = delete;

    std::string url() const { return "ldap://" + m_address; }
    std::string ldapsUrl() const { return "ldaps://" + m_address; }

    /// The address on which it listens.
    const std::string& address() const { return m_address; }
    static constexpr std::uint16_t port = 389;
    static constexpr std::uint16_t ldapsPort = 636;

    /// What a client has to trust, as a PEM file.
    std::filesystem::path caCertificate() const { return m_ca.certificate(); }

    static constexpr const char* suffix = "DC=ad,DC=test";
    static constexpr const char* domain = "ad.test";
    static constexpr const char* netbiosDomain = "ADTEST";
    static constexpr const char* administrator = "Administrator@ad.test";
    static constexpr const char* password = "Passw0rd!";

    /// The server's log so far.
    std::string log() const;

    /// Starts the server again after kill(), with the same content.
    void start();
    /// Ends the server at once, as a crash would.
    void kill();

private:
    std::string configuration() const;

    SambaOptions m_options;
    TemporaryDirectory m_directory;
    // No other process has this port, so no other server has the address derived from it.
    ReservedPort m_number;
    std::string m_address;
    TestCa m_ca;
    ServerCertificate m_certificate;
    std::optional<ChildProcess> m_process;
};

} // namespace tavo::test
