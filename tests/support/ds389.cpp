#include "ds389.h"

#include "test_outcome.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <stdexcept>

namespace tavo::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr auto howToInstall = "run ./dev setup (Debian: apt-get install 389-ds-base)";

/// The server's only database.
constexpr auto database = "userRoot";

/// Where the server's files are: the whole machine's, or its package unpacked for the tests.
fs::path installation()
{
    for (const fs::path root : {"/", TAVO_UNPACKED_PACKAGES}) {
        if (fs::exists(root / "usr/sbin/ns-slapd"))
            return root;
    }
    throw std::runtime_error(std::string("389 Directory Server is not there: ") + howToInstall);
}

/// The folder of the server's plug-ins, which is in one for each architecture on some systems.
fs::path plugins()
{
    for (const char* const folder :
        {"usr/lib64", "usr/lib", "usr/lib/x86_64-linux-gnu", "usr/lib/aarch64-linux-gnu"}) {
        const fs::path plugins = installation() / folder / "dirsrv/plugins";
        if (fs::exists(plugins))
            return plugins;
    }
    throw std::runtime_error(std::string("389 Directory Server has no plug-ins: ") + howToInstall);
}

std::string userName()
{
    const passwd* const user = getpwuid(geteuid());
    return user == nullptr ? "root" : user->pw_name;
}

/// A line of the server's own template, where names stand between percent signs.
std::string filledIn(std::string line, const std::map<std::string, std::string>& values)
{
    for (const auto& [name, value] : values) {
        const std::string placeholder = "%" + name + "%";
        for (std::size_t at = 0; (at = line.find(placeholder, at)) != std::string::npos; at += value.size())
            line.replace(at, placeholder.size(), value);
    }
    return line;
}

/// The server looks for plug-ins in the place that it was built for, unless it is told the whole path.
std::string withWholePath(const std::string& line)
{
    static constexpr std::string_view attribute = "nsslapd-pluginpath: ";
    const std::string start = line.substr(0, attribute.size());
    if (start != attribute && start != "nsslapd-pluginPath: ")
        return line;
    return start + (plugins() / line.substr(attribute.size())).string() + ".so";
}

} // namespace

Ds389::Ds389(const std::string& ldif)
{
    for (const char* const folder : {"bak", "cert", "db", "ldif", "lock", "log", "run", "tmp"})
        fs::create_directory(m_directory.path() / folder);
    fs::copy(installation() / "usr/share/dirsrv/schema", m_directory.path() / "schema",
        fs::copy_options::recursive);
    writeConfiguration();
    load(ldif);
    start();
}

Ds389::~Ds389()
{
    // Nobody will see its data again, so it needn't end in good order.
    if (m_process)
        m_process->kill();
    if (testHasFailed())
        std::fprintf(stderr, "What 389 Directory Server on %s said:\n%s", url().c_str(), log().c_str());
}

std::string Ds389::log() const { return readFile(m_directory.path() / "ns-slapd.log"); }

void Ds389::writeConfiguration() const
{
    const std::string here = m_directory.path().string();
    const std::map<std::string, std::string> values{{"bak_dir", here + "/bak"}, {"cert_dir", here + "/cert"},
        {"config_dir", here}, {"db_dir", here + "/db"}, {"db_home_dir", here + "/db"}, {"db_lib", "bdb"},
        {"ds_bename", database}, {"ds_passwd", std::string("{CLEAR}") + rootPassword},
        {"ds_port", std::to_string(m_port.number())}, {"ds_suffix", suffix}, {"ds_user", userName()},
        {"fqdn", "localhost\nnsslapd-listenhost: 127.0.0.1"}, {"inst_dir", here},
        {"ldapi", here + "/run/ldapi"}, {"ldapi_autobind", "off"}, {"ldapi_enabled", "off"},
        {"ldif_dir", here + "/ldif"}, {"lock_dir", here + "/lock"}, {"log_dir", here + "/log"},
        {"rootdn", rootDn}, {"run_dir", here + "/run"}, {"schema_dir", here + "/schema"},
        {"tmp_dir", here + "/tmp"}};
    std::string text;
    for (const char* const name : {"template-dse.ldif", "template-suffix-db.ldif"}) {
        std::istringstream lines(readFile(installation() / "usr/share/dirsrv/data" / name));
        for (std::string line; std::getline(lines, line);) {
            // An empty line too many is an entry that can't be read.
            if (!line.starts_with('#') && !(line.empty() && text.ends_with("\n\n")))
                text += withWholePath(filledIn(line, values)) + "\n";
        }
        text += text.ends_with("\n\n") ? "" : "\n";
    }
    const std::string node = std::string("\"") + suffix + "\"";
    text += "dn: cn=" + node + ",cn=mapping tree,cn=config\nobjectClass: extensibleObject\n";
    text += "objectClass: nsMappingTree\ncn: " + node + "\nnsslapd-state: backend\n";
    text += std::string("nsslapd-backend: ") + database + "\n\n";
    // The server would add this one itself, by a name that is no path.
    text += "dn: cn=entryuuid,cn=plugins,cn=config\nobjectClass: nsSlapdPlugin\ncn: entryuuid\n";
    text += withWholePath("nsslapd-pluginpath: libentryuuid-plugin") + "\n";
    text += "nsslapd-plugininitfunc: entryuuid_plugin_init\nnsslapd-plugintype: betxnpreoperation\n";
    text += "nsslapd-pluginenabled: on\nnsslapd-pluginid: entryuuid\nnsslapd-pluginversion: none\n";
    text += "nsslapd-pluginvendor: none\nnsslapd-plugindescription: none\n";
    m_directory.write("dse.ldif", text);
    m_directory.write("slapd-collations.conf", "");
}

void Ds389::load(const std::string& ldif) const
{
    const std::string top =
        std::string("dn: ") + suffix +
        "\nobjectClass: domain\ndc: example\n"
        "aci: (targetattr=\"*\")(version 3.0; acl \"read\"; allow (read, search, compare) "
        "userdn=\"ldap:///anyone\";)\n\n";
    const fs::path file = m_directory.write("entries.ldif", top + ldif);
    if (run(command({"ns-slapd", "ldif2db", "-n", database, "-i", file.string()})) != 0)
        throw std::runtime_error("the entries could not be loaded:\n" + log());
}

void Ds389::start()
{
    m_process.emplace(command({"ns-slapd", "-i", (m_directory.path() / "run/pid").string(), "-d", "0"}));
    while (!isListening(m_port.number())) {
        // Nothing tells when a server begins to listen; that it has ended instead is known at once.
        if (m_process->waitForExit(2ms))
            throw std::runtime_error("389 Directory Server has not started:\n" + log());
    }
}

Command Ds389::command(std::vector<std::string> arguments) const
{
    arguments.insert(arguments.end(), {"-D", m_directory.path().string()});
    // Its libraries are in folders of their own; the client configuration, meant for the code under test,
    // doesn't concern it.
    return {.words = std::move(arguments),
        .program = installation() / "usr/sbin/ns-slapd",
        .log = m_directory.path() / "ns-slapd.log",
        .environment = {{"LDAPNOINIT", "1"},
            {"LD_LIBRARY_PATH", plugins().string() + ":" + plugins().parent_path().string()}}};
}

} // namespace tavo::test
