#include "slapd.h"

#include "test_outcome.h"

#include <csignal>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace tavo::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

fs::path firstThatExists(const std::vector<fs::path>& candidates)
{
    for (const fs::path& candidate : candidates) {
        if (fs::exists(candidate))
            return candidate;
    }
    return {};
}

fs::path installedSlapd()
{
    const fs::path program = findProgram({"/usr/sbin/slapd", "/usr/libexec/slapd", "slapd"});
    if (program.empty())
        throw std::runtime_error("slapd is not installed: run ./dev setup (Debian: apt-get install slapd)");
    return program;
}

/// AppArmor's profile for slapd, where it is in force, knows the system's own directories only. It goes by
/// the path of the program, so that a copy is free of it.
bool isConfined(const fs::path& program)
{
    return readFile("/sys/kernel/security/apparmor/profiles").find(program.string()) != std::string::npos ||
           (fs::exists("/etc/apparmor.d/usr.sbin.slapd") &&
               readFile("/sys/module/apparmor/parameters/enabled").starts_with("Y"));
}

std::string lines(const std::vector<std::string>& all)
{
    std::string result;
    for (const std::string& line : all)
        result += line + "\n";
    return result;
}

std::string suffixEntry(const std::string& suffix)
{
    const std::string type = suffix.substr(0, suffix.find('='));
    const std::string value = suffix.substr(type.size() + 1, suffix.find(',') - type.size() - 1);
    const std::string header = "dn: " + suffix + "\nobjectClass: top\n";
    if (type == "dc")
        return header + "objectClass: dcObject\nobjectClass: organization\no: " + value + "\ndc: " + value +
               "\n\n";
    if (type == "o")
        return header + "objectClass: organization\no: " + value + "\n\n";
    if (type == "ou")
        return header + "objectClass: organizationalUnit\nou: " + value + "\n\n";
    throw std::invalid_argument("cannot make an entry for the suffix " + suffix);
}

} // namespace

SlapdOptions likeActiveDirectory()
{
    // OpenLDAP's own schema for Active Directory gives objectCategory no matching rule, so it can't be
    // searched.
    static constexpr auto schema = R"(
attributetype ( 1.1.7.1.1 NAME 'sAMAccountName' EQUALITY caseIgnoreMatch SUBSTR caseIgnoreSubstringsMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 SINGLE-VALUE )
attributetype ( 1.1.7.1.2 NAME 'userAccountControl' EQUALITY integerMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.27 SINGLE-VALUE )
attributetype ( 1.1.7.1.3 NAME 'objectCategory' EQUALITY caseIgnoreMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 SINGLE-VALUE )
attributetype ( 1.1.7.1.4 NAME 'userPrincipalName' EQUALITY caseIgnoreMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 SINGLE-VALUE )
attributetype ( 1.1.7.1.5 NAME 'forestFunctionality' EQUALITY integerMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.27 SINGLE-VALUE )
attributetype ( 1.1.7.1.6 NAME 'memberOf' EQUALITY distinguishedNameMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.12 )
objectclass ( 1.1.7.2.1 NAME 'user' SUP inetOrgPerson STRUCTURAL
    MAY ( sAMAccountName $ userAccountControl $ objectCategory $ userPrincipalName $ memberOf $ gecos ) )
objectclass ( 1.1.7.2.2 NAME 'group' SUP top STRUCTURAL MUST cn
    MAY ( member $ sAMAccountName $ objectCategory $ memberOf $ description ) )
)";
    SlapdOptions options;
    options.suffix = "dc=ad,dc=test";
    options.schema = schema;
    options.rootDse = "dn:\nobjectClass: top\nobjectClass: extensibleObject\nforestFunctionality: 7\n";
    return options;
}

Slapd::Slapd(SlapdOptions options)
    : m_options(std::move(options))
{
    if (m_options.rootDn.empty())
        m_options.rootDn = "cn=admin," + m_options.suffix;
    if (m_options.ldif.find("dn: " + m_options.suffix + "\n") == std::string::npos)
        m_options.ldif = suffixEntry(m_options.suffix) + m_options.ldif;
    m_program = program();
    fs::create_directory(m_directory.path() / "db");
    m_directory.write("own.schema", m_options.schema);
    m_directory.write("rootdse.ldif", m_options.rootDse);
    m_directory.write("slapd.conf", configuration());
    load();
    start();
}

Slapd::~Slapd()
{
    m_process.reset();
    if (testHasFailed())
        std::fprintf(stderr, "What slapd on %s said:\n%s", url().c_str(), log().c_str());
}

std::string Slapd::url() const { return "ldap://127.0.0.1:" + std::to_string(port()); }

std::string Slapd::ldapsUrl() const { return "ldaps://127.0.0.1:" + std::to_string(ldapsPort()); }

std::string Slapd::log() const { return readFile(m_directory.path() / "slapd.log"); }

void Slapd::start()
{
    const std::string urls = m_options.tls ? url() + " " + ldapsUrl() : url();
    m_process.emplace(command({"slapd", "-d", "stats", "-h", urls}));
    waitUntilListening(port());
    if (m_options.tls)
        waitUntilListening(ldapsPort());
}

void Slapd::stop()
{
    if (m_process)
        m_process->stop();
}

void Slapd::kill()
{
    if (m_process)
        m_process->kill();
}

void Slapd::restart()
{
    stop();
    start();
}

void Slapd::suspend() { m_process->suspend(); }

void Slapd::resume() { m_process->signal(SIGCONT); }

fs::path Slapd::program() const
{
    const fs::path installed = installedSlapd();
    if (!isConfined(installed))
        return installed;
    const fs::path copy = m_directory.path() / "slapd";
    fs::copy_file(installed, copy);
    return copy;
}

std::string Slapd::configuration() const
{
    const fs::path& directory = m_directory.path();
    const fs::path schemas = firstThatExists({"/etc/ldap/schema", "/etc/openldap/schema"});
    const fs::path modules = firstThatExists({"/usr/lib/ldap", "/usr/lib64/openldap", "/usr/lib/openldap"});
    std::string text;
    for (const char* name : {"core", "cosine", "nis", "inetorgperson"})
        text += "include " + (schemas / name).string() + ".schema\n";
    text += "include " + (directory / "own.schema").string() + "\n";
    // A slapd without modules has the database built in.
    if (fs::exists(modules / "back_mdb.so"))
        text += "modulepath " + modules.string() + "\nmoduleload back_mdb\n";
    for (const std::string& module : m_options.modules)
        text += "moduleload " + module + "\n";
    text += "pidfile " + (directory / "slapd.pid").string() + "\n";
    if (!m_options.rootDse.empty())
        text += "rootDSE " + (directory / "rootdse.ldif").string() + "\n";
    if (m_options.tls) {
        text += "TLSCACertificateFile " + m_options.tls->caCertificate.string() + "\n";
        text += "TLSCertificateFile " + m_options.tls->certificate.string() + "\n";
        text += "TLSCertificateKeyFile " + m_options.tls->key.string() + "\n";
    }
    text += lines(m_options.globalLines);
    text += "database mdb\nsuffix \"" + m_options.suffix + "\"\n";
    text += "rootdn \"" + m_options.rootDn + "\"\nrootpw " + m_options.rootPassword + "\n";
    text += "directory " + (directory / "db").string() + "\nmaxsize 1073741824\ndbnosync\n";
    text += "index objectClass eq\nindex cn,uid,mail,member eq\n";
    return text + lines(m_options.databaseLines);
}

void Slapd::load() const
{
    const fs::path ldif = m_directory.write("entries.ldif", m_options.ldif);
    std::vector<std::string> arguments{"slapadd", "-q", "-l", ldif.string()};
    if (!m_options.checksSchema)
        arguments.emplace_back("-s");
    if (run(command(std::move(arguments))) != 0)
        throw std::runtime_error("slapadd failed:\n" + log());
}

/// slapd and its tools are one program, which goes by the first of its words.
Command Slapd::command(std::vector<std::string> arguments) const
{
    arguments.insert(arguments.end(), {"-f", (m_directory.path() / "slapd.conf").string()});
    // Neither the client configuration nor another libldap, both meant for the code under test, concern the
    // server.
    return {.words = std::move(arguments),
        .program = m_program,
        .log = m_directory.path() / "slapd.log",
        .environment = {{"LDAPNOINIT", "1"}, {"LD_LIBRARY_PATH", std::nullopt}}};
}

void Slapd::waitUntilListening(std::uint16_t port)
{
    while (!isListening(port)) {
        // Nothing tells when a server begins to listen; that it has ended instead is known at once.
        if (m_process->waitForExit(2ms))
            throw std::runtime_error("slapd has not started:\n" + log());
    }
}

} // namespace tavo::test
