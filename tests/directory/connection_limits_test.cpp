// Servers that fall silent at every stage of a connection with options. Each wait ends at the limit of time that
// is meant for it, or when another thread says so, and the session is over then.
//
// A wait is measured from below only; one that never ends is ended by the test's deadline. Where a test needs
// time to pass, it waits for another connection to reach the same limit.
#include "directory_test.h"
#include "support/black_hole.h"
#include "support/blocked_call.h"
#include "support/reserved_port.h"
#include "support/sanitized.h"
#include "support/scripted_server.h"
#include "support/tcp_client.h"
#include "support/tcp_relay.h"
#include "support/test_ca.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <dlfcn.h>
#include <netdb.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

namespace tavo::test {
namespace {

/// A name that stands for several servers of this machine.
constexpr std::string_view kManyAddresses = "many.addresses.invalid";
/// Their ports, in their order.
std::vector<std::string> portsOfName;
/// Called when the name is looked up.
std::function<void()> whileLookedUp = [] {};

} // namespace
} // namespace tavo::test

/// Stands before the C library's function of this name.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(
    const char* host, const char* service, const addrinfo* hints, addrinfo** result)
{
    static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    if (host == nullptr || host != tavo::test::kManyAddresses) {
        return real(host, service, hints, result);
    }
    tavo::test::whileLookedUp();
    addrinfo** end = result;
    for (const std::string& port : tavo::test::portsOfName) {
        if (const int rc = real("127.0.0.1", port.c_str(), hints, end); rc != 0) {
            return rc;
        }
        end = &(*end)->ai_next;
    }
    return 0;
}

namespace tavo::ldap {
namespace {

using test::operator""_s;
using test::BlackHole;
using test::BlockedCall;
using test::done;
using test::entry;
using test::Gate;
using test::NothingIsLeft;
using test::qt;
using test::Request;
using test::ScriptedServer;
using test::Slapd;
using test::Steps;
using test::success;
using test::TcpRelay;
using test::urlOf;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::Matcher;

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kLimit{test::sanitized ? 1500 : 300};
/// Of a wait that must not be the one that ends.
constexpr milliseconds kLong = std::chrono::hours(1);

/// The authority that this process trusts.
test::TestCa& trustedCa()
{
    static test::TestCa ca;
    return ca;
}

/// How a call has ended.
struct End
{
    int code = LDAP_SUCCESS;
    ConnectFailure failure;

    bool operator==(const End& other) const
    {
        return code == other.code && failure.kind == other.failure.kind &&
               failure.address == other.failure.address && failure.detail == other.failure.detail;
    }
};

void PrintTo(const End& end, std::ostream* out)
{
    *out << end.code << ", kind " << static_cast<int>(end.failure.kind) << ", ["
         << end.failure.address.toStdString() << "], [" << end.failure.detail.toStdString() << "]";
}

End endedByLimit(const std::string& url, const QString& limit, milliseconds time = kLimit)
{
    const QString detail = "The connection was ended after the %1 of %2 ms."_s;
    return {LDAP_TIMEOUT,
        {ConnectFailure::Kind::timedOut, qt(url), detail.arg(limit, QString::number(time.count()))}};
}

End interrupted(const std::string& url)
{
    return {LDAP_USER_CANCELLED,
        {ConnectFailure::Kind::interrupted, qt(url), "The program has interrupted the connection."_s}};
}

/// The calls that may wait for a server.
using Call = std::function<End(Session&)>;

template <class Function>
End endOf(Function function)
{
    try {
        function();
        return {};
    } catch (const BaseError& error) {
        return {error.ldapCode, error.connectFailure};
    }
}

End bind(Session& session)
{
    return endOf([&] { session.bind("cn=admin,dc=example,dc=test"_s, "secret"_s); });
}

End whoAmI(Session& session)
{
    return endOf([&] { session.whoAmI(); });
}

End blockingSearch(Session& session)
{
    return endOf([&] { session.simpleSearch({}); });
}

SearchParams searchParams(std::shared_ptr<SearchReport> report)
{
    SearchParams params{"dc=example,dc=test"_s, QString(), {}, SearchScope::subtree};
    params.report = std::move(report);
    return params;
}

/// Of single entries.
End pagedSearch(Session& session)
{
    const auto report = std::make_shared<SearchReport>();
    const auto found = session.search(searchParams(report), 1);
    const auto* const result = std::get_if<Result>(&found);
    EXPECT_EQ(result != nullptr ? *result : Result::ok, translateErrorCode(report->ldapCode));
    return {report->ldapCode, report->connectFailure};
}

/// The same, calling back after the first page.
Call pagedSearchWith(const std::function<void()>& afterFirstPage)
{
    return [=](Session& session) -> End {
        test::Entries entries;
        const auto report = std::make_shared<SearchReport>();
        const auto handler = [&, isFirst = true](Result result, std::vector<SearchEntry> page) mutable {
            if (std::exchange(isFirst, false)) {
                afterFirstPage();
            }
            entries.add(result, std::move(page));
        };
        session.asyncSearch(searchParams(report), handler, 1);
        const Result result = entries.waitForEnd();
        EXPECT_EQ(result, translateErrorCode(report->ldapCode));
        return {report->ldapCode, report->connectFailure};
    };
}

/// Opens one gate after the other, every few milliseconds.
class Drip
{
public:
    Drip()
        : m_gates(kCount)
        , m_thread([this] { open(); })
    {}
    ~Drip()
    {
        m_isOver.set_value();
        m_thread.join();
        // A closed one keeps the server that waits for it.
        for (const Gate& gate : m_gates) {
            gate.open();
        }
    }
    Drip(const Drip&) = delete;
    Drip& operator=(const Drip&) = delete;

    /// One byte after the other.
    Steps steps(const test::Bytes& bytes) const
    {
        Steps steps;
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            steps.append({waitFor(m_gates.at(i)), test::raw(bytes.substr(i, 1))});
        }
        return steps;
    }
    /// More than a limit lasts, and then the end of the connection: whoever lets each byte put off the limit sees it.
    Steps steps() const { return {steps(test::Bytes(kCount, '\0')), test::closeConnection()}; }

    static constexpr std::size_t kCount = 1200;
    static constexpr milliseconds kPace{5};

private:
    void open()
    {
        const auto isOver = m_isOver.get_future();
        for (const Gate& gate : m_gates) {
            if (isOver.wait_for(kPace) == std::future_status::ready) {
                return;
            }
            gate.open();
        }
    }

    std::vector<Gate> m_gates;
    std::promise<void> m_isOver;
    std::thread m_thread;
};

enum class Protocol
{
    plain,
    startTls,
    ldaps
};

std::string nameOf(Protocol protocol)
{
    switch (protocol) {
    case Protocol::plain:
        return "plain";
    case Protocol::startTls:
        return "startTls";
    case Protocol::ldaps:
        break;
    }
    return "ldaps";
}

std::string schemeOf(Protocol protocol) { return protocol == Protocol::ldaps ? "ldaps" : "ldap"; }

/// A server that falls silent, and the call that waits for it.
struct Scene
{
    std::string url;
    /// What waits for the server, once there is a session; without it the session's constructor does.
    Call call;
    std::vector<std::shared_ptr<void>> servers;
    /// Before the call.
    std::function<void()> fallSilent = [] {};
    /// Opens when the call has come as far as it can; already open where nothing tells.
    Gate reached{};
    /// Lets the servers go on.
    Gate goOn{};
};

Scene fullBacklog(Protocol protocol)
{
    const auto hole = std::make_shared<BlackHole>();
    Scene scene{hole->url(schemeOf(protocol)), {}, {hole}};
    scene.reached.open();
    return scene;
}

/// Answers the first bytes of the client's handshake like this.
Scene handshake(Protocol protocol, const Steps& answer)
{
    const auto server = std::make_shared<ScriptedServer>();
    Scene scene{server->url(schemeOf(protocol)), {}, {server}};
    const Steps steps{test::awaitRawInput(), opens(scene.reached), answer};
    if (protocol == Protocol::ldaps) {
        server->greet(steps);
    } else {
        server->expectStartTls().answer(success(), steps);
    }
    return scene;
}

Scene drippingHandshake(Protocol protocol)
{
    const auto drip = std::make_shared<Drip>();
    // A record of 16 KiB, of which each byte comes in time.
    Scene scene = handshake(protocol, {test::raw(test::Bytes("\x16\x03\x03\x40\x00", 5)), drip->steps()});
    scene.servers.push_back(drip);
    return scene;
}

std::shared_ptr<Slapd> makeSlapd()
{
    const auto certificate = trustedCa().issue();
    return std::make_shared<Slapd>(test::SlapdOptions{.ldif = test::people(3),
        .tls = test::SlapdTls{trustedCa().certificate(), certificate.certificate, certificate.key}});
}

/// A real server behind a relay.
struct Relayed
{
    explicit Relayed(Protocol protocol)
        : slapd(makeSlapd())
        , relay(std::make_shared<TcpRelay>(protocol == Protocol::ldaps ? slapd->ldapsPort() : slapd->port()))
    {}

    std::shared_ptr<Slapd> slapd;
    std::shared_ptr<TcpRelay> relay;
};

Scene withinHandshake(Protocol protocol, std::size_t bytes)
{
    const Relayed server(protocol);
    Scene scene{server.relay->url(schemeOf(protocol)), {}, {server.slapd, server.relay}};
    scene.reached = server.relay->hold(TcpRelay::Direction::toClient, TcpRelay::bytes(bytes), scene.goOn);
    return scene;
}

/// A plain server that answers everything like this.
Scene answered(const Steps& answer, Call call)
{
    const auto server = std::make_shared<ScriptedServer>();
    Scene scene{server->url(), std::move(call), {server}};
    server->otherwise([answer, reached = scene.reached](const Request&) {
        return Steps{answer, opens(reached)};
    });
    return scene;
}

/// A real server that stops working before the call.
Scene stopped(Protocol protocol, Call call)
{
    const auto slapd = makeSlapd();
    Scene scene{protocol == Protocol::ldaps ? slapd->ldapsUrl() : slapd->url(), std::move(call), {slapd}};
    scene.fallSilent = [slapd] { slapd->suspend(); };
    scene.reached.open();
    return scene;
}

/// A real server that stops working after the first page.
Scene stoppedBetweenPages(Protocol protocol)
{
    const auto slapd = makeSlapd();
    Scene scene{protocol == Protocol::ldaps ? slapd->ldapsUrl() : slapd->url(), {}, {slapd}};
    scene.call = pagedSearchWith([slapd, reached = scene.reached] {
        slapd->suspend();
        reached.open();
    });
    return scene;
}

/// How many bytes a relay forwards to the client until it has its answer to a who-am-I.
std::size_t bytesToWhoAmI(const TcpRelay& relay, Protocol protocol)
{
    Session session(urlOf(relay.url(schemeOf(protocol))), protocol == Protocol::startTls, false);
    session.whoAmI();
    // It counts what it has forwarded before it accepts another connection.
    const test::TcpClient next(relay.port());
    relay.waitForConnections(2);
    return relay.forwarded(TcpRelay::Direction::toClient);
}

/// A real server whose answer breaks off a few bytes before its end. Over TLS it has sent tickets for later sessions
/// (RFC 8446, section 4.6.1) before, which make the socket readable.
Scene withinAnswer(Protocol protocol)
{
    constexpr std::size_t kShort = 8;
    const Relayed server(protocol);
    Scene scene{server.relay->url(schemeOf(protocol)), &whoAmI, {server.slapd, server.relay}};
    const std::size_t bytes = bytesToWhoAmI(*server.relay, protocol) - kShort;
    scene.reached = server.relay->hold(TcpRelay::Direction::toClient, TcpRelay::bytes(bytes), scene.goOn);
    return scene;
}

Scene drippingAnswer(Call call)
{
    const auto drip = std::make_shared<Drip>();
    // A message of 16 KiB.
    Scene scene = answered({test::raw(test::Bytes("\x30\x82\x40\x00", 4)), drip->steps()}, std::move(call));
    scene.servers.push_back(drip);
    scene.reached.open();
    return scene;
}

Scene betweenPages()
{
    const auto server = std::make_shared<ScriptedServer>();
    Scene scene{server->url(), &pagedSearch, {server}};
    server->expectSearch().answer(entry("cn=a"), done().page("more"));
    server->expectSearch().answer(opens(scene.reached));
    return scene;
}

struct Stage
{
    std::string name;
    Protocol protocol;
    /// As the options call it.
    QString limit;
    std::function<Scene()> scene;
};

void PrintTo(const Stage& stage, std::ostream* out) { *out << stage.name + "_" + nameOf(stage.protocol); }

std::vector<Stage> stages()
{
    const auto connect = "connectTimeout"_s;
    const auto answer = "answerTimeout"_s;
    const auto silence = "pageSilenceTimeout"_s;
    const auto plain = Protocol::plain;
    std::vector<Stage> all;
    for (const Protocol protocol : {Protocol::plain, Protocol::startTls, Protocol::ldaps}) {
        all.push_back({"backlog", protocol, connect, [=] { return fullBacklog(protocol); }});
        all.push_back({"bind", protocol, answer, [=] { return stopped(protocol, &bind); }});
        all.push_back({"whoAmI", protocol, answer, [=] { return stopped(protocol, &whoAmI); }});
        all.push_back({"withinWhoAmI", protocol, answer, [=] { return withinAnswer(protocol); }});
        all.push_back({"firstPage", protocol, silence, [=] { return stopped(protocol, &pagedSearch); }});
        all.push_back({"laterPage", protocol, silence, [=] { return stoppedBetweenPages(protocol); }});
    }
    for (const Protocol protocol : {Protocol::startTls, Protocol::ldaps}) {
        all.push_back({"handshake", protocol, connect, [=] { return handshake(protocol, {}); }});
        all.push_back(
            {"withinServerHello", protocol, connect, [=] { return withinHandshake(protocol, 60); }});
        all.push_back(
            {"withinCertificate", protocol, connect, [=] { return withinHandshake(protocol, 600); }});
        all.push_back({"drippingHandshake", protocol, connect, [=] { return drippingHandshake(protocol); }});
    }
    all.push_back({"answer", Protocol::startTls, answer, [] { return answered({}, {}); }});
    all.push_back({"drippingAnswer", Protocol::startTls, answer, [] { return drippingAnswer({}); }});
    all.push_back({"drippingBind", plain, answer, [] { return drippingAnswer(&bind); }});
    all.push_back({"drippingWhoAmI", plain, answer, [] { return drippingAnswer(&whoAmI); }});
    const Steps firstEntry{entry("cn=a")};
    all.push_back({"afterAnEntry", plain, silence, [=] { return answered(firstEntry, &pagedSearch); }});
    all.push_back({"withinAnEntry", plain, silence,
        [=] { return answered(test::truncated(8, firstEntry), &pagedSearch); }});
    all.push_back({"betweenPages", plain, silence, [] { return betweenPages(); }});
    return all;
}

/// All limits but one are out of reach.
ConnectionOptions withLimit(const QString& limit)
{
    const auto time = [&](const QString& name) { return name == limit ? kLimit : kLong; };
    ConnectionOptions options;
    options.connectTimeout = time("connectTimeout"_s);
    options.answerTimeout = time("answerTimeout"_s);
    options.pageSilenceTimeout = time("pageSilenceTimeout"_s);
    return options;
}

ConnectionOptions interruptible()
{
    ConnectionOptions options;
    options.interrupter.emplace();
    return options;
}

std::chrono::nanoseconds processorTime()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// A wait that ends at a limit of time: not earlier, and without being busy meanwhile.
class LimitedWait
{
public:
    explicit LimitedWait(milliseconds limit = kLimit)
        : m_limit(limit)
    {}
    ~LimitedWait()
    {
        EXPECT_GE(steady_clock::now() - m_begin, m_limit);
        EXPECT_LT(processorTime() - m_processorTime, m_limit / 2);
    }
    LimitedWait(const LimitedWait&) = delete;
    LimitedWait& operator=(const LimitedWait&) = delete;

private:
    const milliseconds m_limit;
    const steady_clock::time_point m_begin = steady_clock::now();
    const std::chrono::nanoseconds m_processorTime = processorTime();
};

/// A session that has ended says the same for ever.
void expectAllCallsToEnd(Session& session, const End& end)
{
    EXPECT_EQ(bind(session), end);
    EXPECT_EQ(whoAmI(session), end);
    EXPECT_EQ(blockingSearch(session), end);
    EXPECT_EQ(pagedSearch(session), end);
}

/// Until another connection has reached its limit.
void waitForALimit()
{
    const Scene silent = answered({}, {});
    Session session(urlOf(silent.url), false, false, withLimit("answerTimeout"_s));
    EXPECT_EQ(bind(session), endedByLimit(silent.url, "answerTimeout"_s));
}

class ConnectionLimits : public ::testing::Test
{
protected:
    ConnectionLimits() { setenv("LDAPTLS_CACERT", trustedCa().certificate().c_str(), 1); }
};

class SilentServer : public ConnectionLimits, public ::testing::WithParamInterface<Stage>
{
protected:
    void makeSession(const ConnectionOptions& options)
    {
        m_session = std::make_unique<Session>(
            urlOf(m_scene.url), GetParam().protocol == Protocol::startTls, false, options);
    }

    /// Until the server falls silent.
    void begin(const ConnectionOptions& options)
    {
        if (m_scene.call) {
            makeSession(options);
            m_scene.fallSilent();
        }
    }

    End wait(const ConnectionOptions& options)
    {
        return m_scene.call ? m_scene.call(*m_session) : endOf([&] { makeSession(options); });
    }

    void expectSessionToBeOver(const End& end)
    {
        if (m_session) {
            expectAllCallsToEnd(*m_session, end);
        }
    }

    void TearDown() override { m_scene.goOn.open(); }

    const Scene m_scene = GetParam().scene();
    NothingIsLeft m_nothingIsLeft;
    std::unique_ptr<Session> m_session;
};

TEST_P(SilentServer, IsLeftAtTheLimit)
{
    const End expected = endedByLimit(m_scene.url, GetParam().limit);
    const ConnectionOptions options = withLimit(GetParam().limit);
    begin(options);
    {
        const LimitedWait wholeLimit;
        EXPECT_EQ(wait(options), expected);
    }
    expectSessionToBeOver(expected);
}

TEST_P(SilentServer, IsLeftAtAnInterruption)
{
    const End expected = interrupted(m_scene.url);
    const ConnectionOptions options = interruptible();
    begin(options);
    BlockedCall call([&] { EXPECT_EQ(wait(options), expected); });
    m_scene.reached.wait("the silence");
    EXPECT_TRUE(call.isWaiting());

    options.interrupter->interrupt();

    call.get();
    expectSessionToBeOver(expected);
}

INSTANTIATE_TEST_SUITE_P(
    Stages, SilentServer, ::testing::ValuesIn(stages()), ::testing::PrintToStringParamName());

class SeveralAddresses : public ConnectionLimits
{
protected:
    ~SeveralAddresses() override { test::portsOfName.clear(); }

    static std::string portOf(const std::string& url) { return url.substr(url.rfind(':') + 1); }
    static QString addressOf(const std::string& url) { return qt(url.substr(url.rfind('/') + 1)); }

    /// The ports of the name; the URL's own isn't looked at.
    void nameThem(const std::vector<std::string>& urls)
    {
        for (const std::string& url : urls) {
            test::portsOfName.push_back(portOf(url));
        }
    }

    static Matcher<ConnectFailure::Try> tried(const std::string& url, int systemError)
    {
        return AllOf(Field(&ConnectFailure::Try::address, addressOf(url)),
            Field(&ConnectFailure::Try::systemError, systemError));
    }

    const std::string m_url = "ldap://" + std::string(test::kManyAddresses);
    const BlackHole m_first;
    const BlackHole m_second;
    const BlackHole m_third;
};

TEST_F(SeveralAddresses, AreTriedBesideThoseThatDoNotAnswer)
{
    ScriptedServer good;
    good.expectWhoAmI().answer(success());
    nameThem({m_first.url(), m_second.url(), good.url()});
    ConnectionOptions options;
    options.connectTimeout = kLong;

    Session session(urlOf(m_url), false, false, options);

    EXPECT_EQ(session.whoAmI(), "anonymous"_s);
}

TEST_F(SeveralAddresses, AreTriedAtOnceAfterThoseThatRefuse)
{
    const test::ReservedPort nobody;
    const std::string refusing = "ldap://127.0.0.1:" + std::to_string(nobody.number());
    ScriptedServer good;
    good.expectWhoAmI().answer(success());
    nameThem({refusing, refusing, good.url()});

    Session session(urlOf(m_url), false, false, withLimit("connectTimeout"_s));

    EXPECT_EQ(session.whoAmI(), "anonymous"_s);
}

TEST_F(SeveralAddresses, ThatRefuseAreAllNamed)
{
    const test::ReservedPort nobody;
    const std::string refusing = "ldap://127.0.0.1:" + std::to_string(nobody.number());
    nameThem({refusing, refusing});
    ConnectionOptions options;
    options.connectTimeout = kLong;

    const End end = endOf([&] { Session(urlOf(m_url), false, false, options); });

    EXPECT_EQ(end.code, LDAP_SERVER_DOWN);
    EXPECT_EQ(end.failure.kind, ConnectFailure::Kind::unreachable);
    EXPECT_EQ(end.failure.address, qt(m_url));
    EXPECT_THAT(end.failure.tries, ElementsAre(tried(refusing, ECONNREFUSED), tried(refusing, ECONNREFUSED)));
}

TEST_F(SeveralAddresses, AreAllTriedWithinTheLimitAndNamed)
{
    nameThem({m_first.url(), m_second.url(), m_third.url()});
    const NothingIsLeft nothingIsLeft;
    const LimitedWait wholeLimit;

    const End end = endOf([&] { Session(urlOf(m_url), false, false, withLimit("connectTimeout"_s)); });

    EXPECT_EQ(end, endedByLimit(m_url, "connectTimeout"_s));
    EXPECT_THAT(end.failure.tries, ElementsAre(tried(m_first.url(), ETIMEDOUT),
                                       tried(m_second.url(), ETIMEDOUT), tried(m_third.url(), ETIMEDOUT)));
}

TEST_F(SeveralAddresses, AreLeftAtAnInterruption)
{
    nameThem({m_first.url(), m_second.url()});
    const NothingIsLeft nothingIsLeft;
    const ConnectionOptions options = interruptible();
    End end;
    BlockedCall call([&] { end = endOf([&] { Session(urlOf(m_url), false, false, options); }); });
    EXPECT_TRUE(call.isWaiting());

    options.interrupter->interrupt();

    call.get();
    EXPECT_EQ(end, interrupted(m_url));
    ASSERT_FALSE(end.failure.tries.empty());
    EXPECT_THAT(end.failure.tries.front(), tried(m_first.url(), ECANCELED));
}

TEST_F(SeveralAddresses, AreNotTriedAfterAnInterruptionDuringTheLookUp)
{
    ScriptedServer good;
    nameThem({good.url()});
    const ConnectionOptions options = interruptible();
    test::whileLookedUp = [&] { options.interrupter->interrupt(); };

    const End end = endOf([&] { Session(urlOf(m_url), false, false, options); });

    test::whileLookedUp = [] {};
    EXPECT_EQ(end, interrupted(m_url));
    EXPECT_EQ(good.connections(), 0U);
}

TEST_F(SeveralAddresses, AreNotLookedUpAfterAnInterruption)
{
    const ConnectionOptions options = interruptible();
    options.interrupter->interrupt();
    test::whileLookedUp = [] { ADD_FAILURE() << "the name was looked up"; };

    const End end = endOf([&] { Session(urlOf(m_url), false, false, options); });

    test::whileLookedUp = [] {};
    EXPECT_EQ(end, interrupted(m_url));
}

TEST_F(SeveralAddresses, MayTakeLongToLookUp)
{
    ScriptedServer good;
    good.expectWhoAmI().answer(success());
    nameThem({good.url()});
    test::whileLookedUp = [] { waitForALimit(); };

    Session session(urlOf(m_url), false, false, withLimit("connectTimeout"_s));

    test::whileLookedUp = [] {};
    EXPECT_EQ(session.whoAmI(), "anonymous"_s);
}

TEST_F(SeveralAddresses, OfAListOfServersShareTheLimit)
{
    ScriptedServer good;
    good.expectWhoAmI().answer(success());
    const std::string list = m_first.url() + " " + m_second.url() + " " + good.url();

    Session session(urlOf(list), false, false, withLimit("connectTimeout"_s));

    EXPECT_EQ(session.whoAmI(), "anonymous"_s);
}

TEST_F(SeveralAddresses, OfAListOfServersAreAllNamed)
{
    const std::string list = m_first.url() + " " + m_second.url();
    const NothingIsLeft nothingIsLeft;
    const LimitedWait wholeLimit;

    const End end = endOf([&] { Session(urlOf(list), false, false, withLimit("connectTimeout"_s)); });

    EXPECT_EQ(end, endedByLimit(m_second.url(), "connectTimeout"_s));
    EXPECT_THAT(
        end.failure.tries, ElementsAre(tried(m_first.url(), ETIMEDOUT), tried(m_second.url(), ETIMEDOUT)));
}

TEST_F(SeveralAddresses, OfAListOfServersAreLeftAtAnInterruption)
{
    ScriptedServer good;
    const ConnectionOptions options = interruptible();
    BlockedCall call([&] {
        const std::string list = m_first.url() + " " + good.url();
        EXPECT_EQ(endOf([&] { Session(urlOf(list), false, false, options); }), interrupted(m_first.url()));
    });
    EXPECT_TRUE(call.isWaiting());

    options.interrupter->interrupt();

    call.get();
    EXPECT_EQ(good.connections(), 0U);
}

TEST_F(ConnectionLimits, OfSilenceArePutOffByEveryByte)
{
    constexpr milliseconds kSilence{test::sanitized ? 3000 : 1000};
    const Drip drip;
    ScriptedServer server;
    server.expectSearch().answerWith([&](const Request& request) {
        const auto length = static_cast<std::size_t>(kSilence / Drip::kPace) * 3 / 2;
        const auto found = entry("cn=a").attr("cn", std::string(length, 'a'));
        return drip.steps(found.encode(request) + done().page("").encode(request));
    });
    ConnectionOptions options;
    options.pageSilenceTimeout = kSilence;
    Session session(urlOf(server.url()), false, false, options);
    const auto begin = steady_clock::now();

    EXPECT_EQ(pagedSearch(session), End());

    EXPECT_GT(steady_clock::now() - begin, kSilence);
}

TEST_F(ConnectionLimits, OfSilenceDoNotConcernHandlers)
{
    ScriptedServer server;
    server.expectSearch().answer(entry("cn=a"), done().page("more"));
    server.expectSearch().answer(entry("cn=b"), done().page(""));
    Session session(urlOf(server.url()), false, false, withLimit("pageSilenceTimeout"_s));

    EXPECT_EQ(pagedSearchWith(&waitForALimit)(session), End());
}

TEST_F(ConnectionLimits, OfAnswersDoNotConcernPages)
{
    const Gate page;
    ScriptedServer server;
    server.expectSearch().answer(waitFor(page), done());
    Session session(urlOf(server.url()), false, false, withLimit("answerTimeout"_s));
    BlockedCall call([&] { EXPECT_EQ(pagedSearch(session), End()); });
    server.waitForRequests(1);

    waitForALimit();
    EXPECT_TRUE(call.isWaiting());
    page.open();
}

TEST_F(ConnectionLimits, OfBlockingSearchesEndTheConnectionWithinAMessage)
{
    constexpr std::chrono::seconds kResponse{1};
    // The client library waits for whole milliseconds, and rounds down each time.
    constexpr milliseconds kRounding{10};
    for (const bool isWithinMessage : {false, true}) {
        SCOPED_TRACE(isWithinMessage);
        ScriptedServer server;
        const Steps found{entry("cn=a")};
        server.expectSearch().answer(isWithinMessage ? test::truncated(8, found) : found);
        if (!isWithinMessage) {
            server.expectWhoAmI().answer(success());
        }
        Session session(urlOf(server.url()), false, false, withLimit({}));
        session.setResponseTimeout(kResponse);
        End end;
        {
            const LimitedWait wholeLimit(kResponse - kRounding);
            end = blockingSearch(session);
        }
        const End lost = endedByLimit(server.url(), "responseTimeout"_s, kResponse);
        EXPECT_EQ(end, isWithinMessage ? lost : (End{LDAP_TIMEOUT, {}}));
        EXPECT_EQ(whoAmI(session), isWithinMessage ? lost : End());
    }
}

/// The client library's own bound makes the socket non-blocking during a handshake.
TEST_F(ConnectionLimits, OfHandshakesHoldBesideANetworkTimeout)
{
    const timeval hosts{3600, 0};
    ldap_set_option(nullptr, LDAP_OPT_NETWORK_TIMEOUT, &hosts);
    for (const Protocol protocol : {Protocol::startTls, Protocol::ldaps}) {
        const Scene scene = handshake(protocol, {});
        const LimitedWait wholeLimit;
        const End end = endOf([&] {
            Session(urlOf(scene.url), protocol == Protocol::startTls, false, withLimit("connectTimeout"_s));
        });
        EXPECT_EQ(end, endedByLimit(scene.url, "connectTimeout"_s));
    }
    ldap_set_option(nullptr, LDAP_OPT_NETWORK_TIMEOUT, nullptr);
}

/// How many bytes this process has yet to read of its connections to a server.
std::size_t unreadBytes(std::uint16_t port)
{
    std::ifstream sockets("/proc/net/tcp");
    std::string line;
    std::getline(sockets, line);
    std::size_t bytes = 0;
    while (std::getline(sockets, line)) {
        unsigned remotePort = 0;
        unsigned unread = 0;
        // "sl: local_address rem_address st tx_queue:rx_queue ..."
        std::sscanf(line.c_str(), "%*d: %*x:%*x %*x:%x %*x %*x:%x", &remotePort, &unread);
        bytes += remotePort == port ? unread : 0;
    }
    return bytes;
}

struct Behind
{
    std::string name;
    Call call;
    /// Whether the search's thread waits in the middle of a message.
    bool isWithinMessage;
};

void PrintTo(const Behind& behind, std::ostream* out)
{
    *out << behind.name + (behind.isWithinMessage ? "WithinAMessage" : "BetweenMessages");
}

/// A call that waits for the page of another search.
class CallBehindAPage : public ConnectionLimits, public ::testing::WithParamInterface<Behind>
{
protected:
    CallBehindAPage()
    {
        const Gate isSent;
        const Steps message = test::splitAt(5, m_page, {done()});
        const Steps begun = GetParam().isWithinMessage ? Steps(message.list().front()) : Steps(entry("cn=a"));
        const Steps rest = GetParam().isWithinMessage ? Steps{message.list().at(1), message.list().at(2)}
                                                      : Steps{waitFor(m_page), done()};
        m_server.expectSearch().answer(begun, opens(isSent), rest, opens(m_pageIsSent));
        m_session.asyncSearch(searchParams(m_report), m_entries.handler(), 100);
        isSent.wait("the beginning of the page");
        while (unreadBytes(m_server.port()) != 0) {
            std::this_thread::yield();
        }
    }

    /// Or the server would keep the rest of its answer.
    void TearDown() override
    {
        m_page.open();
        m_pageIsSent.open();
    }

    /// Behind the page: an answer must not come in the middle of another one.
    void answerCall(const Steps& answer)
    {
        m_server.otherwise([steps = Steps{waitFor(m_pageIsSent), answer}](const Request&) { return steps; });
    }

    void makeCall(const End& expected)
    {
        m_call.emplace([this, expected] { EXPECT_EQ(GetParam().call(m_session), expected); });
        EXPECT_TRUE(m_call->isWaiting());
    }

    NothingIsLeft m_nothingIsLeft;
    const Gate m_page;
    const Gate m_pageIsSent;
    ScriptedServer m_server;
    const std::shared_ptr<SearchReport> m_report = std::make_shared<SearchReport>();
    test::Entries m_entries;
    ConnectionOptions m_options = [] {
        ConnectionOptions options = withLimit("answerTimeout"_s);
        options.interrupter.emplace();
        return options;
    }();
    Session m_session{urlOf(m_server.url()), false, false, m_options};
    std::optional<BlockedCall> m_call;
};

TEST_P(CallBehindAPage, IsNotLimitedWhileItWaitsForThePage)
{
    answerCall(success());
    makeCall(End());

    waitForALimit();
    EXPECT_TRUE(m_call->isWaiting());
    m_page.open();

    m_call->get();
    EXPECT_EQ(m_entries.waitForEnd(), Result::ok);
}

TEST_P(CallBehindAPage, HasItsWholeTimeFromThenOn)
{
    answerCall(test::truncated(5, success()));
    makeCall(endedByLimit(m_server.url(), "answerTimeout"_s));

    waitForALimit();
    const LimitedWait wholeLimit;
    m_page.open();

    m_call->get();
    EXPECT_EQ(m_entries.waitForEnd(), Result::ok);
}

TEST_P(CallBehindAPage, EndsWithTheSearchAtAnInterruption)
{
    answerCall({});
    makeCall(interrupted(m_server.url()));

    m_options.interrupter->interrupt();

    m_call->get();
    EXPECT_EQ(m_entries.waitForEnd(), Result::cancelled);
    EXPECT_EQ((End{m_report->ldapCode, m_report->connectFailure}), interrupted(m_server.url()));
    expectAllCallsToEnd(m_session, interrupted(m_server.url()));
}

INSTANTIATE_TEST_SUITE_P(Calls, CallBehindAPage,
    ::testing::Values(Behind{"bind", &bind, false}, Behind{"bind", &bind, true},
        Behind{"whoAmI", &whoAmI, false}, Behind{"whoAmI", &whoAmI, true}),
    ::testing::PrintToStringParamName());

class Interruptions : public ConnectionLimits
{
protected:
    void interrupt() { m_options.interrupter->interrupt(); }

    const ConnectionOptions m_options = interruptible();
    ScriptedServer m_server;
};

TEST_F(Interruptions, EndSessionsThatAreYetToBeMade)
{
    interrupt();
    for (const Protocol protocol : {Protocol::plain, Protocol::startTls, Protocol::ldaps}) {
        const std::string url = m_server.url(schemeOf(protocol));
        EXPECT_EQ(endOf([&] { Session(urlOf(url), protocol == Protocol::startTls, false, m_options); }),
            interrupted(url));
    }
    EXPECT_EQ(m_server.connections(), 0U);
}

TEST_F(Interruptions, MayComeAgain)
{
    Session session(urlOf(m_server.url()), false, false, m_options);
    EXPECT_FALSE(m_options.interrupter->isInterrupted());
    for (int i = 0; i < 2; ++i) {
        interrupt();
        EXPECT_TRUE(m_options.interrupter->isInterrupted());
        expectAllCallsToEnd(session, interrupted(m_server.url()));
    }
    EXPECT_THAT(m_server.requests(), ::testing::IsEmpty());
}

TEST_F(Interruptions, EndTheSessionsOfTheirInterrupterAlone)
{
    m_server.expectWhoAmI().answer(success());
    Session first(urlOf(m_server.url()), false, false, m_options);
    Session second(urlOf(m_server.url()), false, false, m_options);
    Session others(urlOf(m_server.url()), false, false, interruptible());

    interrupt();

    EXPECT_EQ(bind(first), interrupted(m_server.url()));
    EXPECT_EQ(bind(second), interrupted(m_server.url()));
    EXPECT_EQ(whoAmI(others), End());
}

TEST_F(Interruptions, MayComeFromAHandler)
{
    m_server.expectSearch().answer(entry("cn=a"), done().page("more"));
    Session session(urlOf(m_server.url()), false, false, m_options);

    EXPECT_EQ(pagedSearchWith([&] { interrupt(); })(session), interrupted(m_server.url()));

    expectAllCallsToEnd(session, interrupted(m_server.url()));
    EXPECT_EQ(m_server.requests().size(), 1U);
}

TEST_F(Interruptions, CancelSearchesThatWaitForTheirTurn)
{
    m_server.expectSearch().answer();
    test::Entries first;
    test::Entries second;
    const auto report = std::make_shared<SearchReport>();
    Session session(urlOf(m_server.url()), false, false, m_options);
    session.asyncSearch(searchParams(nullptr), first.handler(), 1);
    session.asyncSearch(searchParams(report), second.handler(), 1);
    m_server.waitForRequests(1);

    interrupt();

    EXPECT_EQ(first.waitForEnd(), Result::cancelled);
    EXPECT_EQ(second.waitForEnd(), Result::cancelled);
    EXPECT_EQ((End{report->ldapCode, report->connectFailure}), interrupted(m_server.url()));
    EXPECT_EQ(m_server.requests().size(), 1U);
}

TEST_F(Interruptions, EndBlockingSearches)
{
    m_server.otherwise([](const Request&) -> Steps { return {}; });
    Session session(urlOf(m_server.url()), false, false, m_options);
    BlockedCall call([&] { EXPECT_EQ(blockingSearch(session), interrupted(m_server.url())); });
    m_server.waitForRequests(1);

    interrupt();

    call.get();
    expectAllCallsToEnd(session, interrupted(m_server.url()));
}

TEST_F(Interruptions, EndTheMakingOfAManager)
{
    m_server.otherwise([](const Request&) -> Steps { return {}; });
    const test::LogCapture warnings;
    Settings settings;
    settings.uri = urlOf(m_server.url());
    BlockedCall call([&] {
        EXPECT_EQ(endOf([&] { createManagerOrThrow(settings, m_options); }), interrupted(m_server.url()));
    });
    m_server.waitForRequests(1);

    interrupt();

    call.get();
}

} // namespace
} // namespace tavo::ldap
