#pragma once

#include "child_process.h"
#include "reserved_port.h"
#include "temporary_directory.h"

#include <optional>
#include <string>
#include <vector>

namespace tavo::test {

/// Certificates for a server (see test_ca.h); with them slapd offers StartTLS and a second, ldaps listener.
struct SlapdTls
{
    std::filesystem::path caCertificate;
    std::filesystem::path certificate;
    std::filesystem::path key;
};

/// The set-up of a throw-away slapd. The defaults make a working server.
struct SlapdOptions
{
    /// The root of the directory. Its entry is made unless `ldif` has it. Must start with dc=, o= or ou=.
    std::string suffix = "dc=example,dc=test";
    /// The identity without access control and limits: `cn=admin` below the suffix when empty.
    std::string rootDn = {};
    std::string rootPassword = "secret";
    /// Entries to start with, as LDIF, parents first.
    std::string ldif = {};
    /// When false, `ldif` is loaded unchecked, so that entries may violate the schema.
    bool checksSchema = true;
    /// Entries that go into the root DSE, as LDIF.
    std::string rootDse = {};
    /// Definitions after those of core, cosine, nis and inetOrgPerson, as `attributetype` and `objectclass`
    /// lines.
    std::string schema = {};
    /// Further modules to load, such as "retcode".
    std::vector<std::string> modules = {};
    /// Lines of slapd.conf before the database: `disallow bind_anon`, `sizelimit 20`, `referral ldap://...`.
    std::vector<std::string> globalLines = {};
    /// Lines of slapd.conf in the database: `limits * size=20`, `access to * by * read`, `overlay retcode`.
    std::vector<std::string> databaseLines = {};
    std::optional<SlapdTls> tls = std::nullopt;
};

/// Options for a slapd that imitates Active Directory: its root DSE has a `forestFunctionality`, it has the
/// classes `user` and `group`, and `userAccountControl`, `sAMAccountName` and `objectCategory` (plain text
/// here: the category `User` matches entries with exactly that text) can be searched with the filters meant
/// for the real one.
SlapdOptions likeActiveDirectory();

/// A private OpenLDAP server on 127.0.0.1, in a temporary directory; it lives as long as this object. It is
/// ready when the constructor or start() returns. If the test has failed by the time of destruction, the
/// server's log is written to standard error.
///
///     Slapd slapd({.ldif = "dn: ou=people,dc=example,dc=test\nobjectClass: organizationalUnit\n"});
///     connect(slapd.url(), slapd.rootDn(), slapd.rootPassword());
///
/// Not thread-safe; the thread that starts the server must outlive it (see ChildProcess).
class Slapd
{
public:
    /// Throws std::runtime_error, with slapd's own words, when it isn't installed or doesn't start.
    explicit Slapd(SlapdOptions options = {});
    ~Slapd();
    Slapd(const Slapd&) = delete;
    Slapd& operator=(const Slapd&) = delete;

    /// `ldap://127.0.0.1:PORT`; the same for as long as this object lives, also while the server is stopped.
    std::string url() const;
    /// `ldaps://127.0.0.1:PORT`; only a server with `tls` listens there.
    std::string ldapsUrl() const;
    std::uint16_t port() const { return m_port.number(); }
    std::uint16_t ldapsPort() const { return m_ldapsPort.number(); }

    const std::string& suffix() const { return m_options.suffix; }
    const std::string& rootDn() const { return m_options.rootDn; }
    const std::string& rootPassword() const { return m_options.rootPassword; }

    /// The server's log so far: a line for each operation received, and one for each finished. The latter is
    /// written after the answer is sent: call stop() first for the complete log.
    std::string log() const;

    /// Starts the server again after stop() or kill(), with the same content.
    void start();
    /// Shuts the server down; does nothing when it isn't running.
    void stop();
    /// Ends the server at once, as a crash would.
    void kill();
    /// Stops and starts: every connection is closed.
    void restart();
    /// Suspends the server: it accepts no more, answers no more, and closes nothing until resume() or stop().
    void suspend();
    void resume();

private:
    std::filesystem::path program() const;
    std::string configuration() const;
    void load() const;
    Command command(std::vector<std::string> arguments) const;
    void waitUntilListening(std::uint16_t port);

    SlapdOptions m_options;
    TemporaryDirectory m_directory;
    ReservedPort m_port;
    ReservedPort m_ldapsPort;
    std::filesystem::path m_program;
    std::optional<ChildProcess> m_process;
};

} // namespace tavo::test
