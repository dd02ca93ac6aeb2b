// What the library does with the descriptors of its connections, whatever fails and is tried again on one handle:
// a number that it has closed is somebody else's, and left alone.
#include "directory_test.h"
#include "socket_watch.h"
#include "support/scripted_server.h"
#include "support/test_ca.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <variant>

namespace tavo::ldap {
namespace {

using test::operator""_s;
using test::Entries;
using test::Gate;
using test::ReservedPort;
using test::ScriptedServer;
using test::Slapd;
using test::SocketWatch;
using test::TestCa;
using test::ThreadsEndHere;
using test::urlOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TestCa& trustedCa()
{
    static TestCa ca;
    return ca;
}

test::SlapdOptions withCertificateOf(TestCa& ca)
{
    const auto certificate = ca.issue();
    return {.tls = test::SlapdTls{ca.certificate(), certificate.certificate, certificate.key}};
}

/// Every kind of call, twice, each of which may fail.
void tryEverything(Session& session)
{
    const std::vector<std::function<void()>> calls{
        [&] { session.bind("cn=admin,dc=example,dc=test"_s, "secret"_s); },
        [&] { session.whoAmI(); },
        [&] { session.simpleSearch({}); },
        [&] { session.search({}, 10); },
        [&] { session.detectLdapVendor(); },
        [&] {
            Entries entries;
            session.asyncSearch({}, entries.handler(), 10);
            entries.waitForEnd();
        },
    };
    for (int round = 0; round < 2; ++round) {
        for (const auto& call : calls) {
            try {
                call();
            } catch (const BaseError&) {
            }
        }
    }
}

class Descriptors : public ::testing::Test
{
protected:
    // The client library reads it once, when a process first uses it.
    Descriptors() { setenv("LDAPTLS_CACERT", trustedCa().certificate().c_str(), 1); }

    /// Makes the process's first use of everything that stays open for its life.
    static void warmUp() { const Session session(urlOf("ldaps://127.0.0.1:1"), false, false); }

    /// What `action` opens is closed when it has returned: that many sockets, each once.
    static void expectEachClosedOnce(std::size_t atLeast, const std::function<void()>& action)
    {
        warmUp();
        const SocketWatch watch;
        {
            const ThreadsEndHere threads;
            action();
        }
        EXPECT_GE(watch.connected(), atLeast);
        EXPECT_THAT(watch.open(), IsEmpty());
        EXPECT_THAT(watch.problems(), IsEmpty());
    }

    static void expectManagerToFail(const std::string& url)
    {
        Settings settings;
        settings.uri = urlOf(url);
        settings.adminDn = "cn=admin,dc=example,dc=test"_s;
        settings.adminPassword = "secret"_s;
        EXPECT_THROW(createManagerOrThrow(settings), BaseError);
    }

    static std::string ldapsTo(std::uint16_t port) { return "ldaps://127.0.0.1:" + std::to_string(port); }
};

TEST(SocketWatchTest, SeesWhatIsDoneToANumberThatIsClosed)
{
    const ReservedPort nobodys;
    const SocketWatch watch;
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(nobodys.number());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), -1);
    EXPECT_EQ(watch.connected(), 1U);
    EXPECT_THAT(watch.open(), ElementsAre(socket));

    EXPECT_EQ(::close(socket), 0);
    EXPECT_THAT(watch.open(), IsEmpty());
    EXPECT_THAT(watch.problems(), IsEmpty());

    EXPECT_EQ(::close(socket), -1);
    EXPECT_EQ(::shutdown(socket, SHUT_RDWR), -1);
    EXPECT_EQ(::write(socket, "x", 1), 1);
    EXPECT_EQ(::close(-1), -1);
    EXPECT_THAT(watch.problems(),
        ElementsAre("close of somebody else's descriptor", "shutdown of somebody else's descriptor",
            "close of a number that isn't open", "write to somebody else's descriptor"));
}

TEST_F(Descriptors, OfAGoodConnectionAreClosedOnce)
{
    const Slapd slapd(withCertificateOf(trustedCa()));
    for (const auto& [url, startTls] :
        {std::pair{slapd.url(), false}, {slapd.url(), true}, {slapd.ldapsUrl(), false}}) {
        SCOPED_TRACE(url);
        expectEachClosedOnce(1, [&, url = url, startTls = startTls] {
            Session session(urlOf(url), startTls, false);
            tryEverything(session);
            EXPECT_EQ(session.whoAmI(), "dn:cn=admin,dc=example,dc=test"_s);
        });
    }
}

TEST_F(Descriptors, OfManagersWithAnUntrustedServerAreClosedOnce)
{
    TestCa other("Other authority");
    const Slapd slapd(withCertificateOf(other));
    // One connection for the detection of the vendor, another one for the bind.
    expectEachClosedOnce(2, [&] { expectManagerToFail(slapd.ldapsUrl()); });
}

TEST_F(Descriptors, OfManagersWithAServerWithoutTlsAreClosedOnce)
{
    const Slapd slapd;
    expectEachClosedOnce(2, [&] { expectManagerToFail(ldapsTo(slapd.port())); });
}

TEST_F(Descriptors, OfRepeatedAttemptsAtAnUntrustedServerAreClosedOnce)
{
    TestCa other("Other authority");
    const Slapd slapd(withCertificateOf(other));
    expectEachClosedOnce(12, [&] {
        Session session(urlOf(slapd.ldapsUrl()), false, false);
        tryEverything(session);
    });
}

TEST_F(Descriptors, OfASessionWhoseStartTlsFailedAreClosedOnce)
{
    TestCa other("Other authority");
    const Slapd slapd(withCertificateOf(other));
    expectEachClosedOnce(1, [&] {
        Session session(urlOf(slapd.url()), false, false);
        EXPECT_THROW(session.startTls(), BaseError);
        tryEverything(session);
    });
    expectEachClosedOnce(1, [&] { EXPECT_THROW(Session(urlOf(slapd.url()), true, false), BaseError); });
}

TEST_F(Descriptors, OfRefusedConnectionsAreClosedOnce)
{
    const ReservedPort nobodys;
    for (const std::string scheme : {"ldap", "ldaps"}) {
        SCOPED_TRACE(scheme);
        expectEachClosedOnce(12, [&] {
            Session session(urlOf(scheme + "://127.0.0.1:" + std::to_string(nobodys.number())), false, false);
            tryEverything(session);
        });
    }
}

TEST_F(Descriptors, OfConnectionsThatTheServerHasClosedAreClosedOnce)
{
    for (const test::Steps& ending : {test::closeConnection(), test::resetConnection(), test::halfClose()}) {
        ScriptedServer server;
        server.otherwise([&](const test::Request&) { return test::Steps{test::success(), ending}; });
        expectEachClosedOnce(1, [&] {
            Session session(urlOf(server.url()), false, false);
            tryEverything(session);
        });
    }
}

TEST_F(Descriptors, OfAServerThatComesAndGoesAreClosedOnce)
{
    Slapd slapd(withCertificateOf(trustedCa()));
    for (const auto& [url, startTls] :
        {std::pair{slapd.url(), false}, {slapd.url(), true}, {slapd.ldapsUrl(), false}}) {
        SCOPED_TRACE(url + (startTls ? " with StartTLS" : ""));
        std::optional<Session> session;
        const auto tryAll = [&] { tryEverything(*session); };
        expectEachClosedOnce(1, [&, url = url, startTls = startTls] {
            session.emplace(urlOf(url), startTls, false);
            tryAll();
            slapd.kill();
            tryAll();
            slapd.start();
            tryAll();
            session.reset();
        });
    }
}

TEST_F(Descriptors, OfSearchesThatOutliveTheConnectionAreClosedOnce)
{
    constexpr int kSearches = 4;
    const Gate breakOff;
    ScriptedServer server;
    server.otherwise([&](const test::Request& request) -> test::Steps {
        if (request.is<test::SearchRequest>())
            return {test::waitFor(breakOff), test::resetConnection()};
        return test::success();
    });
    expectEachClosedOnce(1, [&] {
        std::optional<Session> session(std::in_place, urlOf(server.url()), false, false);
        session->bind(QString(), QString());
        std::vector<std::unique_ptr<SearchContext>> contexts;
        std::vector<std::future<void>> blocking;
        for (int i = 0; i < kSearches; ++i)
            contexts.push_back(session->createSearchContext({}));
        for (const auto& context : contexts) {
            blocking.push_back(std::async(std::launch::async, [&context] {
                EXPECT_THROW(context->simpleSearch(), BaseError);
                EXPECT_THROW(context->simpleSearch(), BaseError);
            }));
        }
        Entries entries;
        session->asyncSearch({}, entries.handler(), 10);
        server.waitForRequests(2);
        breakOff.open();
        entries.waitForEnd();
        for (auto& search : blocking)
            search.get();
        tryEverything(*session);
        session.reset();
        for (const auto& context : contexts)
            EXPECT_THROW(context->simpleSearch(), BaseError);
    });
}

} // namespace
} // namespace tavo::ldap
