#include "samba.h"

#include "test_outcome.h"

#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <vector>

namespace tavo::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr auto howToInstall =
    "run ./dev setup (Debian: apt-get install samba-ad-dc samba-dsdb-modules samba-ad-provision)";

/// Makes a domain in the directory argv[1] and adds the entries in its entries.ldif. The command-line tool
/// does the same, but it insists on permissions that only root can give, and starts the interpreter once
/// more.
constexpr auto provisioning = R"(
import logging, sys
from samba.auth import system_session
from samba.dsdb import DS_DOMAIN_FUNCTION_2008_R2
from samba.param import LoadParm
from samba.provision import provision

directory, domain, netbios, password = sys.argv[1:]
settings = LoadParm()
settings.load(directory + "/empty.conf")
result = provision(
    logging.getLogger(), system_session(), smbconf=directory + "/etc/smb.conf", lp=settings, targetdir=directory,
    realm=domain.upper(), domain=netbios, hostname="dc", hostip="127.0.0.1", adminpass=password,
    serverrole="active directory domain controller", dom_for_fun_level=DS_DOMAIN_FUNCTION_2008_R2,
    dns_backend="NONE", skip_sysvolacl=True, batch_mode=True)
result.samdb.transaction_start()
result.samdb.add_ldif(open(directory + "/entries.ldif", encoding="utf-8").read())
result.samdb.transaction_commit()
)";

bool mayListenWhereSambaDoes()
{
    const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(Samba::port);
    const bool forbidden =
        bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 && errno == EACCES;
    close(server);
    return !forbidden;
}

void switchLoopbackOn()
{
    const int anySocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ifreq loopback{};
    loopback.ifr_name[0] = 'l';
    loopback.ifr_name[1] = 'o';
    loopback.ifr_flags = IFF_UP | IFF_RUNNING;
    ioctl(anySocket, SIOCSIFFLAGS, &loopback);
    close(anySocket);
}

/// Not everybody may listen on Samba's ports, but everybody may have a network of his own and be root there.
/// So a program that is going to need a Samba moves there first of all, while it has no other thread.
__attribute__((constructor)) void moveToNetworkOfOnesOwn(int argc, char** argv)
{
    static constexpr auto isThere = "TAVO_TEST_OWN_NETWORK";
    if (std::getenv(isThere) != nullptr)
        return switchLoopbackOn();
    if (mayListenWhereSambaDoes())
        return;
    std::fputs("This user may not listen on port 389; going on in a network namespace. Where those are "
               "forbidden, too, run this as root.\n",
        stderr);
    std::string program = fs::read_symlink("/proc/self/exe");
    std::vector<std::string> words{"unshare", "--user", "--map-root-user", "--net", "--", program};
    words.insert(words.end(), argv + 1, argv + argc);
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    setenv(isThere, "1", 1);
    execvp(pointers[0], pointers.data());
    std::perror(pointers[0]);
}

/// Holds a lock that other processes see, too.
class FileLock
{
public:
    explicit FileLock(const fs::path& file)
        : m_file(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {
        if (m_file < 0 || flock(m_file, LOCK_EX) != 0)
            throw std::runtime_error("cannot lock " + file.string());
    }
    ~FileLock() { close(m_file); }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    int m_file;
};

fs::path installedSamba()
{
    const fs::path program = findProgram({"/usr/sbin/samba", "samba"});
    if (program.empty())
        throw std::runtime_error(std::string("Samba is not installed: ") + howToInstall);
    return program;
}

Command quiet(Command command)
{
    // Neither the client configuration nor another libldap, both meant for the code under test, concern
    // Samba.
    command.environment = {{"LDAPNOINIT", "1"}, {"LD_LIBRARY_PATH", std::nullopt}};
    return command;
}

void provision(const TemporaryDirectory& directory, const std::string& ldif)
{
    directory.write("empty.conf", "[global]\n");
    directory.write("entries.ldif", ldif);
    const fs::path log = directory.path() / "provision.log";
    // The system's own interpreter: that is the one for which Samba's modules are installed.
    const int status = run(quiet({.words = {"/usr/bin/python3", "-c", provisioning, directory.path().string(),
                                      Samba::domain, Samba::netbiosDomain, Samba::password},
        .log = log}));
    if (status != 0)
        throw std::runtime_error("no domain could be made; if Samba is not complete, " +
                                 std::string(howToInstall) + ":\n" + readFile(log));
}

/// A domain with these entries, made now or kept since another test made it: the folder with its databases.
fs::path provisionedDomain(const std::string& ldif)
{
    const fs::path cache = TAVO_SAMBA_DOMAINS;
    fs::create_directories(cache);
    const FileLock lock(cache / "lock");
    const auto version = fs::last_write_time(installedSamba()).time_since_epoch().count();
    const std::size_t key = std::hash<std::string>()(provisioning + ldif + std::to_string(version));
    const fs::path kept = cache / std::to_string(key);
    if (fs::exists(kept))
        return kept;
    const TemporaryDirectory fresh;
    provision(fresh, ldif);
    // By way of another name, so that the right one is never seen half full.
    const fs::path growing = cache / "growing";
    fs::remove_all(growing);
    fs::copy(fresh.path() / "private", growing, fs::copy_options::recursive);
    fs::rename(growing, kept);
    return kept;
}

std::string addressOf(std::uint16_t number)
{
    return "127.77." + std::to_string(number / 256) + "." + std::to_string(number % 256);
}

} // namespace

Samba::Samba(SambaOptions options)
    : m_options(std::move(options))
    , m_address(addressOf(m_number.number()))
    , m_certificate(m_ca.issue({.subjectAltNames = {"IP:" + m_address, "IP:127.0.0.1"}}))
{
    fs::copy(provisionedDomain(m_options.ldif), m_directory.path() / "private", fs::copy_options::recursive);
    // Samba insists on both.
    fs::permissions(m_directory.path() / "private", fs::perms::owner_all);
    fs::permissions(m_certificate.key, fs::perms::owner_read | fs::perms::owner_write);
    m_directory.write("smb.conf", configuration());
    start();
}

Samba::~Samba()
{
    // Nobody will see its data again, and ending in good order takes it two seconds.
    kill();
    if (testHasFailed())
        std::fprintf(stderr, "What Samba on %s said:\n%s", m_address.c_str(), log().c_str());
}

std::string Samba::log() const { return readFile(m_directory.path() / "samba.log"); }

std::string Samba::configuration() const
{
    const std::string directory = m_directory.path().string();
    std::string text = "[global]\n"
                       "realm = AD.TEST\nworkgroup = ADTEST\nnetbios name = DC\n"
                       "server role = active directory domain controller\n"
                       "server services = ldap\ndcerpc endpoint servers =\n";
    // Without the mask, Samba takes the address for that of a network card that isn't there.
    text += "interfaces = " + m_address + "/8\nbind interfaces only = yes\n";
    for (const char* folder : {"state", "cache", "lock", "pid", "ncalrpc"})
        text += std::string(folder) + (std::string_view(folder) == "ncalrpc" ? " dir = " : " directory = ") +
                directory + "/" + folder + "\n";
    for (const std::string& line : m_options.lines)
        text += line + "\n";
    text += "private dir = " + directory + "/private\n";
    text += "tls keyfile = " + m_certificate.key.string() + "\n";
    text += "tls certfile = " + m_certificate.certificate.string() + "\n";
    return text + "tls cafile = " + m_ca.certificate().string() + "\n";
}

void Samba::start()
{
    const fs::path log = m_directory.path() / "samba.log";
    m_process.emplace(
        quiet({.words = {"samba", "--foreground", "--no-process-group", "--debug-stdout", "--model=single",
                   "--configfile=" + (m_directory.path() / "smb.conf").string()},
            .program = installedSamba(),
            .log = log}));
    for (const std::uint16_t listener : {port, ldapsPort}) {
        while (!isListening(listener, m_address)) {
            // Nothing tells when a server begins to listen; that it has ended instead is known at once.
            if (m_process->waitForExit(2ms))
                throw std::runtime_error("Samba has not started:\n" + readFile(log));
        }
    }
}

void Samba::kill()
{
    if (m_process)
        m_process->kill();
}

} // namespace tavo::test
