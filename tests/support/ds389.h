#pragma once

#include "child_process.h"
#include "reserved_port.h"
#include "temporary_directory.h"

#include <optional>
#include <string>

namespace tavo::test {

/// A private 389 Directory Server on 127.0.0.1, in a temporary directory; it lives as long as this object. It
/// is ready when the constructor returns, and lets everybody read. If the test has failed by the time of
/// destruction, the server's log is written to standard error.
///
/// Not thread-safe; the thread that starts the server must outlive it (see ChildProcess).
class Ds389
{
public:
    /// Serves these entries, as LDIF, parents first, below the entry of the suffix, which it makes. Throws
    /// std::runtime_error, with the server's own words, when it isn't there or doesn't start.
    explicit Ds389(const std::string& ldif = {});
    ~Ds389();
    Ds389(const Ds389&) = delete;
    Ds389& operator=(const Ds389&) = delete;

    std::string url() const { return "ldap://127.0.0.1:" + std::to_string(m_port.number()); }

    static constexpr const char* suffix = "dc=example,dc=test";
    static constexpr const char* rootDn = "cn=admin,dc=example,dc=test";
    static constexpr const char* rootPassword = "secret";

    /// The server's log so far.
    std::string log() const;

private:
    void writeConfiguration() const;
    void load(const std::string& ldif) const;
    void start();
    Command command(std::vector<std::string> arguments) const;

    TemporaryDirectory m_directory;
    ReservedPort m_port;
    std::optional<ChildProcess> m_process;
};

} // namespace tavo::test
