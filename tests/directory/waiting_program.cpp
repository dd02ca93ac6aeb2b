// waiting_program CALL URL: makes one call of the library, with a response time-out of a second, and prints
// what came of it. The environment says what else may bound its wait, which the client library reads once.
#include <ldap/manager.h>
#include <ldap/session.h>

#include <ldap.h>

#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace {

using tavo::ldap::Result;
using tavo::ldap::SearchEntry;
using tavo::ldap::SearchParams;
using tavo::ldap::SearchScope;
using tavo::ldap::Session;
using tavo::utils::Url;

constexpr std::chrono::seconds kResponseTimeout{1};

std::string ownName()
{
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return name;
}

/// How often this machine's own name was looked up.
int ownLookups = 0;
/// How often a connection was tried.
int tries = 0;
/// A name that stands for the same machine twice.
constexpr std::string_view kTwoAddresses = "two.addresses.invalid";

std::unique_ptr<Session> sessionWith(const Url& url, bool startTls = false)
{
    auto session = std::make_unique<Session>(url, startTls, /*ignoreCertificateErrors*/ true);
    session->setResponseTimeout(kResponseTimeout);
    return session;
}

int optionOf(int descriptor, int level, int name)
{
    int value = -1;
    socklen_t size = sizeof value;
    return getsockopt(descriptor, level, name, &value, &size) == 0 ? value : -1;
}

SearchParams everything() { return {QStringLiteral("dc=x"), QString(), {}, SearchScope::subtree}; }

tavo::ldap::Settings settingsFor(const Url& url)
{
    tavo::ldap::Settings settings;
    settings.uri = url;
    settings.adminDn = QStringLiteral("cn=admin");
    settings.adminPassword = QStringLiteral("secret");
    settings.responseTimeout = kResponseTimeout;
    return settings;
}

/// What a host does for itself, before its first session.
void setKeepalive()
{
    for (const auto& [option, value] : {std::pair(LDAP_OPT_X_KEEPALIVE_IDLE, 7),
             {LDAP_OPT_X_KEEPALIVE_PROBES, 3}, {LDAP_OPT_X_KEEPALIVE_INTERVAL, 5}})
        ldap_set_option(nullptr, option, &value);
}

void bind(const Url& url) { sessionWith(url)->bind(QStringLiteral("cn=admin"), QStringLiteral("secret")); }

/// What a host does for itself, too.
void setBounds()
{
    const timeval second{.tv_sec = 1, .tv_usec = 0};
    ldap_set_option(nullptr, LDAP_OPT_TIMEOUT, &second);
    ldap_set_option(nullptr, LDAP_OPT_NETWORK_TIMEOUT, &second);
}

/// Prints how the kernel looks after the process's only connection over TCP.
void printKeepalive(const Url& url)
{
    const auto session = sessionWith(url);
    session->bind(QStringLiteral("cn=admin"), QStringLiteral("secret"));
    for (int descriptor = 3; descriptor < 100; ++descriptor) {
        if (optionOf(descriptor, SOL_SOCKET, SO_PROTOCOL) == IPPROTO_TCP) {
            std::printf("keepalive %d, idle %d, probes %d, interval %d, ",
                optionOf(descriptor, SOL_SOCKET, SO_KEEPALIVE),
                optionOf(descriptor, IPPROTO_TCP, TCP_KEEPIDLE),
                optionOf(descriptor, IPPROTO_TCP, TCP_KEEPCNT),
                optionOf(descriptor, IPPROTO_TCP, TCP_KEEPINTVL));
        }
    }
}

/// Leaves a search behind that waits for its second page, forgotten with its session.
void leaveASearchBehind(const Url& url)
{
    std::promise<void> firstPage;
    const auto session = sessionWith(url);
    session->asyncSearch(
        everything(),
        [&](Result result, const std::vector<SearchEntry>&) {
            if (result == Result::moreResults)
                firstPage.set_value();
        },
        1);
    firstPage.get_future().get();
}

const std::map<std::string, std::function<void(const Url&)>> calls = {
    {"startTls", [](const Url& url) { sessionWith(url, true); }},
    {"bind", bind},
    {"setBoundsAndBind",
        [](const Url& url) {
            setBounds();
            bind(url);
        }},
    {"whoAmI", [](const Url& url) { sessionWith(url)->whoAmI(); }},
    {"detectLdapVendor", [](const Url& url) { sessionWith(url)->detectLdapVendor(); }},
    {"simpleSearch", [](const Url& url) { sessionWith(url)->simpleSearch(everything()); }},
    {"search",
        [](const Url& url) {
            const auto found = sessionWith(url)->search(everything(), 10);
            if (const auto* result = std::get_if<Result>(&found))
                throw std::runtime_error(tavo::ldap::toString(*result));
        }},
    {"createManagerOrThrow", [](const Url& url) { tavo::ldap::createManagerOrThrow(settingsFor(url)); }},
    {"testLdapConnection",
        [](const Url& url) {
            if (!tavo::ldap::testLdapConnection(settingsFor(url)))
                throw std::runtime_error("failed");
        }},
    {"testLdapConnectionAsync",
        [](const Url& url) {
            tavo::ldap::testLdapConnectionAsync(settingsFor(url), [] {
                throw std::runtime_error("failed");
            }).get();
        }},
    {"printKeepalive", printKeepalive},
    {"setAndPrintKeepalive",
        [](const Url& url) {
            setKeepalive();
            printKeepalive(url);
        }},
    {"leaveASearchBehind", leaveASearchBehind},
    {"printTriesOfTwoAddresses",
        [](const Url& url) {
            QString twice = QString::fromStdString(url.toStdString());
            twice.replace(QStringLiteral("127.0.0.1"), QString::fromUtf8(kTwoAddresses.data()));
            try {
                bind(Url(twice));
            } catch (const tavo::ldap::BaseError& error) {
                std::printf("connections tried: %d, %s, ", tries, error.what());
            }
        }},
    {"printOwnLookups",
        [](const Url& url) {
            sessionWith(url);
            const int first = std::exchange(ownLookups, 0);
            sessionWith(url);
            std::printf("own name looked up: first session %d, second %d, ", first, ownLookups);
        }},
};

} // namespace

/// Stands before the C library's function of this name for the client library, too.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(
    const char* host, const char* service, const addrinfo* hints, addrinfo** result)
{
    static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    ownLookups += host != nullptr && ownName() == host ? 1 : 0;
    if (host == nullptr || host != kTwoAddresses)
        return real(host, service, hints, result);
    addrinfo* second = nullptr;
    real("127.0.0.1", service, hints, &second);
    const int code = real("127.0.0.1", service, hints, result);
    (*result)->ai_next = second;
    return code;
}

/// Likewise.
extern "C" __attribute__((visibility("default"))) int connect(
    int descriptor, const sockaddr* address, socklen_t length)
{
    static const auto real = reinterpret_cast<decltype(&connect)>(dlsym(RTLD_NEXT, "connect"));
    ++tries;
    return real(descriptor, address, length);
}

/// The thread of a search may be left behind; that is what is to be seen.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options();
const char* __tsan_default_options() { return "halt_on_error=1:report_thread_leaks=0"; }

int main(int argc, char** argv)
{
    const auto call = argc == 3 ? calls.find(argv[1]) : calls.end();
    if (call == calls.end()) {
        return 2;
    }
    try {
        call->second(Url(QString::fromUtf8(argv[2])));
        std::puts("returned");
    } catch (const std::exception& error) {
        std::puts(error.what());
    }
    return 0;
}
