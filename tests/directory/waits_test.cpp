// What the calls of the library wait for, and what bounds the wait. Most calls are made by a process of their
// own, whose environment sets the bounds: the client library reads them once.
//
// How long a call takes is never looked at. A call that nothing bounds is started before others that end by
// themselves after a second, and is still waiting when they have ended.
#include "directory_test.h"
#include "support/black_hole.h"
#include "support/child_process.h"
#include "support/scripted_server.h"
#include "support/temporary_directory.h"
#include "support/threads_end_here.h"
#include <ldap/session.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <chrono>
#include <future>
#include <list>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace tavo::test {

namespace {

using ::testing::HasSubstr;

using Environment = std::map<std::string, std::optional<std::string>>;

const Environment kTimeout = {{"LDAPTIMEOUT", "1"}};
const Environment kNetworkTimeout = {{"LDAPNETWORK_TIMEOUT", "1"}};

/// One call of the library in a process of its own.
class Call
{
public:
    Call(const std::string& name, const std::string& url, const Environment& environment = {})
        : m_name(name)
        , m_process({.words = {TAVO_WAITING_PROGRAM, name, url},
              .log = m_directory.path() / "log",
              .environment = environment})
    {}

    const std::string& name() const { return m_name; }

    bool isWaiting() { return !m_process.waitForExit(std::chrono::milliseconds(0)); }

    /// The last line that it printed before it ended by itself.
    std::string outcome()
    {
        if (!m_process.waitForExit(kDeadline))
            return "still waiting";
        std::istringstream log(readFile(m_directory.path() / "log"));
        std::string last;
        for (std::string line; std::getline(log, line);)
            last = line;
        return m_process.exitStatus() == 0 ? last : "exit status " + std::to_string(*m_process.exitStatus());
    }

    void kill() { m_process.kill(); }

private:
    std::string m_name;
    TemporaryDirectory m_directory;
    ChildProcess m_process;
};

/// Several of them at the same time.
class Calls
{
public:
    void start(const std::vector<std::string>& names, const std::string& url, const Environment& environment)
    {
        for (const auto& name : names)
            m_calls.emplace_back(name, url, environment);
    }

    std::size_t count() const { return m_calls.size(); }

    void expectToBeWaiting()
    {
        for (auto& call : m_calls)
            EXPECT_TRUE(call.isWaiting()) << call.name() << ": " << call.outcome();
    }

    /// Each must end by itself with what is given for it.
    void expectToEnd(const std::map<std::string, std::string>& outcomes)
    {
        for (auto& call : m_calls)
            EXPECT_THAT(call.outcome(), HasSubstr(outcomes.at(call.name()))) << call.name();
    }

private:
    std::list<Call> m_calls;
};

/// What comes of each call when no connection can be had.
const std::map<std::string, std::string> kUnconnected = {
    {"startTls", "startTls: Can't contact LDAP server"},
    {"bind", "bind: Can't contact LDAP server"},
    {"whoAmI", "whoAmI: Can't contact LDAP server"},
    {"detectLdapVendor", "returned"},
    {"simpleSearch", "ldap_search_ext_s: Can't contact LDAP server"},
    {"search", "Cannot connect to LDAP server."},
    {"createManagerOrThrow", "bind: Can't contact LDAP server"},
    {"testLdapConnection", "failed"},
    {"testLdapConnectionAsync", "failed"},
};

/// What comes of each when it has had enough of waiting for an answer.
const std::map<std::string, std::string> kUnanswered = {
    {"startTls", "startTls: Timed out"},
    {"bind", "bind: Timed out"},
    {"whoAmI", "whoAmI: Timed out"},
    {"detectLdapVendor", "returned"},
    {"simpleSearch", "ldap_search_ext_s: Timed out"},
    {"createManagerOrThrow", "bind: Timed out"},
    {"testLdapConnection", "failed"},
    {"testLdapConnectionAsync", "failed"},
};

std::vector<std::string> namesOf(const std::map<std::string, std::string>& outcomes)
{
    std::vector<std::string> names;
    for (const auto& outcome : outcomes)
        names.push_back(outcome.first);
    return names;
}

/// A second later: a blocking search has given up on a server that says nothing.
void waitForAResponseTimeout()
{
    ScriptedServer silent;
    silent.otherwise([](const Request&) -> Steps { return {}; });
    EXPECT_THAT(Call("simpleSearch", silent.url()).outcome(), HasSubstr("Timed out"));
}

TEST(Waits, DoNotOccurInTheConstructorWithoutStartTls)
{
    const BlackHole hole;
    ldap::Session(urlOf(hole.url()), false, false);
    ldap::Session(urlOf(hole.url("ldaps")), false, false);
}

TEST(Waits, ForTheMachinesOwnNameAreThoseOfTheFirstSessionAlone)
{
    const BlackHole hole;

    EXPECT_EQ(Call("printOwnLookups", hole.url()).outcome(),
        "own name looked up: first session 1, second 0, returned");
}

TEST(Waits, AreBoundedByWhatTheHostHasSetForItsProcess)
{
    const BlackHole hole;
    ScriptedServer silent;
    silent.otherwise([](const Request&) -> Steps { return {}; });
    Call unconnected("setBoundsAndBind", hole.url());
    Call unanswered("setBoundsAndBind", silent.url());

    EXPECT_THAT(unconnected.outcome(), HasSubstr(kUnconnected.at("bind")));
    EXPECT_THAT(unanswered.outcome(), HasSubstr(kUnanswered.at("bind")));
}

TEST(Waits, ForAConnectionAreBoundedByTheNetworkTimeoutAlone)
{
    const BlackHole hole;
    Calls waiting;
    waiting.start(namesOf(kUnconnected), hole.url(), kTimeout);
    Calls bounded;
    bounded.start(namesOf(kUnconnected), hole.url(), kNetworkTimeout);

    bounded.expectToEnd(kUnconnected);
    waiting.expectToBeWaiting();
}

TEST(Waits, ForAConnectionCountForEachAddressOfAName)
{
    const BlackHole hole;

    EXPECT_EQ(Call("printTriesOfTwoAddresses", hole.url(), kNetworkTimeout).outcome(),
        "connections tried: 2, bind: Can't contact LDAP server (Connection timed out), returned");
}

TEST(Waits, ForAnAnswerAreBoundedByTheTimeoutOfTheClientLibrary)
{
    ScriptedServer silent;
    silent.otherwise([](const Request&) -> Steps { return {}; });
    Calls waiting;
    waiting.start({"startTls", "bind", "whoAmI", "search", "createManagerOrThrow", "testLdapConnection",
                      "testLdapConnectionAsync"},
        silent.url(), kNetworkTimeout);
    silent.waitForRequests(waiting.count());
    Calls bounded;
    bounded.start({"startTls", "bind", "whoAmI", "createManagerOrThrow", "testLdapConnection",
                      "testLdapConnectionAsync"},
        silent.url(), kTimeout);

    bounded.expectToEnd(kUnanswered);
    waiting.expectToBeWaiting();
}

TEST(Waits, OfBlockingSearchesAreBoundedByTheResponseTimeout)
{
    ScriptedServer silent;
    silent.otherwise([](const Request&) -> Steps { return {}; });
    Calls bounded;
    bounded.start({"detectLdapVendor", "simpleSearch"}, silent.url(), {});

    bounded.expectToEnd(kUnanswered);
}

TEST(Waits, OfPagedSearchesAreBoundedByNothing)
{
    ScriptedServer silent;
    silent.otherwise([](const Request&) -> Steps { return {}; });
    Call waiting(
        "search", silent.url(), {{"LDAPTIMEOUT", "1"}, {"LDAPNETWORK_TIMEOUT", "1"}, {"LDAPTIMELIMIT", "1"}});
    silent.waitForRequests(1);

    waitForAResponseTimeout();
    EXPECT_TRUE(waiting.isWaiting()) << waiting.outcome();
}

/// More than the kernel's buffers hold: when it is sent, the search's thread is reading, and waits for the
/// rest.
std::vector<Entry> muchToRead()
{
    return std::vector<Entry>(32, entry("cn=a").attr("cn", std::string(1 << 20, 'a')));
}

TEST(Waits, OfAContextForTheThreadOfItsStoppedSearchAreBoundedByNothing)
{
    const Gate isWaiting;
    const Gate answer;
    ScriptedServer server;
    server.expectSearch().answer(muchToRead(), opens(isWaiting), waitFor(answer), done());
    server.expectSearch().answer(done());
    ldap::Session session(urlOf(server.url()), false, false);
    session.setResponseTimeout(std::chrono::seconds(1));
    const std::shared_ptr<ldap::SearchContext> context = session.createSearchContext({});
    Deliveries<ldap::SearchEntry> first;
    Deliveries<ldap::SearchEntry> second;
    context->asyncSearch(first.handler(), 10);
    isWaiting.wait("the search to read");
    context->stopAsyncSearch();
    EXPECT_EQ(first.waitForEnd(), ldap::Result::cancelled);
    auto starting = std::async(std::launch::async, [&] { context->asyncSearch(second.handler(), 10); });

    waitForAResponseTimeout();
    EXPECT_EQ(starting.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    answer.open();
    starting.get();
    EXPECT_EQ(second.waitForEnd(), ldap::Result::ok);
}

/// The client library's, as it is written in numbers: 20513 is 2.5.13.
int clientLibraryVersion()
{
    LDAPAPIInfo info{};
    info.ldapai_info_version = LDAP_API_INFO_VERSION;
    ldap_get_option(nullptr, LDAP_OPT_API_INFO, &info);
    ber_memvfree(reinterpret_cast<void**>(info.ldapai_extensions));
    ldap_memfree(info.ldapai_vendor_name);
    return info.ldapai_vendor_version;
}

bool clientLibraryIsOnOpenSsl()
{
    char* package = nullptr;
    ldap_get_option(nullptr, LDAP_OPT_X_TLS_PACKAGE, &package);
    const bool isOnOpenSsl = package != nullptr && std::string(package) == "OpenSSL";
    ldap_memfree(package);
    return isOnOpenSsl;
}

TEST(Waits, ForAHandshakeAreBoundedByTheNetworkTimeoutOfNewLibldapOnly)
{
    ScriptedServer stalled;
    stalled.greet(awaitRawInput());
    ScriptedServer stalledAfterStartTls;
    stalledAfterStartTls.otherwise([](const Request&) -> Steps { return {success(), awaitRawInput()}; });
    Calls waiting;
    waiting.start({"bind", "whoAmI", "simpleSearch", "search", "createManagerOrThrow", "testLdapConnection"},
        stalled.url("ldaps"), kTimeout);
    waiting.start({"startTls"}, stalledAfterStartTls.url(), kTimeout);
    Calls hasty;
    hasty.start({"bind"}, stalled.url("ldaps"), kNetworkTimeout);
    hasty.start({"startTls"}, stalledAfterStartTls.url(), kNetworkTimeout);

    waitForAResponseTimeout();
    waiting.expectToBeWaiting();
    if (clientLibraryVersion() < 20609) {
        hasty.expectToBeWaiting();
        return;
    }
    // OpenSSL queues an error when an unfinished handshake is shut down, as that of ldaps is.
    hasty.expectToEnd({{"bind", clientLibraryIsOnOpenSsl() ? "TLS error with session: " : "bind: "},
        {"startTls", "startTls: "}});
}

TEST(Waits, BehindASilentPagedSearchAreBoundedByNothing)
{
    const Gate isWaiting;
    const Gate answer;
    ScriptedServer server;
    server.expectSearch().answer(muchToRead(), opens(isWaiting), waitFor(answer), done());
    server.expectSearch().answer(done());
    const ThreadsEndHere threadOfTheSearch;
    ldap::Session session(urlOf(server.url()), false, false);
    session.setResponseTimeout(std::chrono::seconds(1));
    Deliveries<ldap::SearchEntry> deliveries;
    session.asyncSearch({}, deliveries.handler(), 100);
    isWaiting.wait("the search to read");
    auto blocking = std::async(std::launch::async, [&] { return session.simpleSearch({}); });

    waitForAResponseTimeout();
    EXPECT_EQ(blocking.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    answer.open();
    EXPECT_EQ(blocking.get().size(), 0U);
    EXPECT_EQ(deliveries.waitForEnd(), ldap::Result::ok);
}

/// What keeps a wait for a server that has vanished from lasting for ever.
std::string keepalive(const std::string& idle, const std::string& probes, const std::string& interval)
{
    return "keepalive 1, idle " + idle + ", probes " + probes + ", interval " + interval + ", returned";
}

TEST(Waits, ForALostServerAreBoundedByTheSystemsKeepalive)
{
    ScriptedServer server;
    server.otherwise([](const Request&) -> Steps { return success(); });
    const auto systemsOwn = [](const std::string& name) {
        return std::to_string(std::stoi(readFile("/proc/sys/net/ipv4/tcp_keepalive_" + name)));
    };

    EXPECT_EQ(Call("printKeepalive", server.url()).outcome(),
        keepalive(systemsOwn("time"), systemsOwn("probes"), systemsOwn("intvl")));
}

TEST(Waits, ForALostServerAreBoundedByTheKeepaliveTheHostSets)
{
    ScriptedServer server;
    server.otherwise([](const Request&) -> Steps { return success(); });

    EXPECT_EQ(Call("setAndPrintKeepalive", server.url()).outcome(), keepalive("7", "3", "5"));
}

TEST(Waits, ForALostServerAreBoundedByNewLibldapsConfiguredKeepalive)
{
    ScriptedServer server;
    server.otherwise([](const Request&) -> Steps { return success(); });

    Call call("printKeepalive", server.url(),
        {{"LDAPKEEPALIVE_IDLE", "7"}, {"LDAPKEEPALIVE_PROBES", "3"}, {"LDAPKEEPALIVE_INTERVAL", "5"}});
    // The old ones write it to a wrong address, which mostly makes them crash.
    if (clientLibraryVersion() >= 20600)
        EXPECT_EQ(call.outcome(), keepalive("7", "3", "5"));
    else
        EXPECT_NE(call.outcome(), keepalive("7", "3", "5"));
}

TEST(Waits, EndWithTheProcessThatIsGivenUp)
{
    const Gate reached;
    ScriptedServer stalled;
    stalled.greet({awaitRawInput(), opens(reached)});
    Call call("createManagerOrThrow", stalled.url("ldaps"));
    reached.wait("the handshake");

    call.kill();

    stalled.waitForClose(0);
}

TEST(Waits, OfForgottenSearchesKeepNoProcessFromEnding)
{
    ScriptedServer server;
    server.expectSearch().answer(entry("cn=a"), done().page("more"));
    // Left unanswered, and the program may be gone before it has asked.
    server.otherwise([](const Request&) -> Steps { return {}; });

    EXPECT_EQ(Call("leaveASearchBehind", server.url()).outcome(), "returned");
}

} // namespace

} // namespace tavo::test
