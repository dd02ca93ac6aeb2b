#include "support/scripted_server.h"
#include "support/tcp_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <array>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace tavo::test {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

using Handle = std::unique_ptr<LDAP, decltype([](LDAP* ld) { ldap_unbind_ext_s(ld, nullptr, nullptr); })>;
using Chain = std::unique_ptr<LDAPMessage, decltype([](LDAPMessage* message) { ldap_msgfree(message); })>;

Handle connectTo(const ScriptedServer& server)
{
    LDAP* ld = nullptr;
    EXPECT_EQ(ldap_initialize(&ld, server.url().c_str()), LDAP_SUCCESS);
    const int version = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    return Handle(ld);
}

int simpleBind(const Handle& ld, const std::string& dn, std::string password)
{
    berval credentials{password.size(), password.data()};
    return ldap_sasl_bind_s(ld.get(), dn.c_str(), LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr, nullptr);
}

int startSearch(const Handle& ld, const std::string& base = "dc=x", LDAPControl** controls = nullptr)
{
    int id = 0;
    EXPECT_EQ(ldap_search_ext(ld.get(), base.c_str(), LDAP_SCOPE_SUBTREE, nullptr, nullptr, 0, controls,
                  nullptr, nullptr, 0, &id),
        LDAP_SUCCESS);
    return id;
}

/// The whole answer to a message, and the type with which libldap names it.
std::pair<int, Chain> answerTo(const Handle& ld, int id)
{
    LDAPMessage* chain = nullptr;
    timeval patience{30, 0};
    const int type = ldap_result(ld.get(), id, LDAP_MSG_ALL, &patience, &chain);
    return {type, Chain(chain)};
}

std::vector<std::string> dnsOf(const Handle& ld, const Chain& chain)
{
    std::vector<std::string> dns;
    for (auto* e = ldap_first_entry(ld.get(), chain.get()); e; e = ldap_next_entry(ld.get(), e)) {
        char* dn = ldap_get_dn(ld.get(), e);
        dns.emplace_back(dn ? dn : "(unreadable)");
        ldap_memfree(dn);
    }
    return dns;
}

std::vector<std::string> valuesOf(const Handle& ld, const Chain& chain, const char* attribute)
{
    std::vector<std::string> texts;
    berval** values = ldap_get_values_len(ld.get(), ldap_first_entry(ld.get(), chain.get()), attribute);
    for (auto** value = values; value && *value; ++value)
        texts.emplace_back((*value)->bv_val, (*value)->bv_len);
    ldap_value_free_len(values);
    return texts;
}

struct Outcome
{
    int code = -1;
    std::string matched;
    std::string diagnostic;
    std::vector<std::string> referrals;
    /// Without criticality: libldap reads that of an answer's control the wrong way round.
    std::vector<std::pair<Bytes, Bytes>> controls;
};

Outcome outcomeOf(const Handle& ld, const Chain& chain)
{
    Outcome outcome;
    char* matched = nullptr;
    char* diagnostic = nullptr;
    char** referrals = nullptr;
    LDAPControl** controls = nullptr;
    EXPECT_EQ(ldap_parse_result(
                  ld.get(), chain.get(), &outcome.code, &matched, &diagnostic, &referrals, &controls, 0),
        LDAP_SUCCESS);
    outcome.matched = matched ? matched : "";
    outcome.diagnostic = diagnostic ? diagnostic : "";
    for (char** url = referrals; url && *url; ++url)
        outcome.referrals.emplace_back(*url);
    for (auto** control = controls; control && *control; ++control)
        outcome.controls.emplace_back(
            (*control)->ldctl_oid, Bytes((*control)->ldctl_value.bv_val, (*control)->ldctl_value.bv_len));
    ldap_memfree(matched);
    ldap_memfree(diagnostic);
    ber_memvfree(reinterpret_cast<void**>(referrals));
    ldap_controls_free(controls);
    return outcome;
}

std::size_t writesOf(const Steps& steps, const Request& request)
{
    std::size_t writes = 0;
    for (const auto& step : steps.list())
        writes += std::get<Step::Send>(step.what).chunks(request).size();
    return writes;
}

TEST(ScriptedServer, ShowsTheSimpleBindThatItReceived)
{
    ScriptedServer server;
    server.expectBind("cn=admin", Bytes("se\0cret", 7)).answer(success());

    EXPECT_EQ(simpleBind(connectTo(server), "cn=admin", Bytes("se\0cret", 7)), LDAP_SUCCESS);

    const auto request = server.waitForRequests(1).at(0).as<BindRequest>();
    EXPECT_EQ(request.version, 3);
    EXPECT_EQ(request.password.size(), 7U);
}

TEST(ScriptedServer, AnswersABindWithCodeMatchedDnAndDiagnostic)
{
    ScriptedServer server;
    server.expectBind("cn=admin", "wrong")
        .answer(result(LDAP_INVALID_CREDENTIALS).matched("dc=x").diagnostic("data 52e"));
    const Handle ld = connectTo(server);

    EXPECT_EQ(simpleBind(ld, "cn=admin", "wrong"), LDAP_INVALID_CREDENTIALS);

    char* diagnostic = nullptr;
    ldap_get_option(ld.get(), LDAP_OPT_DIAGNOSTIC_MESSAGE, &diagnostic);
    EXPECT_STREQ(diagnostic, "data 52e");
    ldap_memfree(diagnostic);
}

TEST(ScriptedServer, ChecksEveryFieldOfASearch)
{
    ScriptedServer server;
    const Control custom{"1.2.3.4", true, "value"};
    server.expectSearch()
        .base("ou=people,dc=x")
        .scope(LDAP_SCOPE_ONELEVEL)
        .deref(LDAP_DEREF_NEVER)
        .sizeLimit(7)
        .timeLimit(9)
        .typesOnly(true)
        .filter("(&(objectClass=*)(!(cn=a*b*)))")
        .attributes({"cn", "mail"})
        .controls({custom})
        .answer(done());
    const Handle ld = connectTo(server);

    LDAPControl control{};
    control.ldctl_oid = const_cast<char*>("1.2.3.4");
    control.ldctl_iscritical = 1;
    control.ldctl_value = {5, const_cast<char*>("value")};
    std::array<LDAPControl*, 2> controls{&control, nullptr};
    std::array<char*, 3> attributes{const_cast<char*>("cn"), const_cast<char*>("mail"), nullptr};
    timeval limit{9, 0};
    LDAPMessage* chain = nullptr;
    EXPECT_EQ(
        ldap_search_ext_s(ld.get(), "ou=people,dc=x", LDAP_SCOPE_ONELEVEL, "(&(objectClass=*)(!(cn=a*b*)))",
            attributes.data(), 1, controls.data(), nullptr, &limit, 7, &chain),
        LDAP_SUCCESS);
    ldap_msgfree(chain);
}

struct NamedFilter
{
    const char* name;
    const char* text;
};

void PrintTo(const NamedFilter& filter, std::ostream* out) { *out << filter.name; }

class FilterText : public ::testing::TestWithParam<NamedFilter>
{};

TEST_P(FilterText, IsTheOneThatWasSent)
{
    ScriptedServer server;
    server.expectSearch().filter(GetParam().text).answer(done());
    const Handle ld = connectTo(server);
    LDAPMessage* chain = nullptr;
    EXPECT_EQ(ldap_search_ext_s(ld.get(), "", LDAP_SCOPE_BASE, GetParam().text, nullptr, 0, nullptr, nullptr,
                  nullptr, 0, &chain),
        LDAP_SUCCESS);
    ldap_msgfree(chain);
}

INSTANTIATE_TEST_SUITE_P(ScriptedServer, FilterText,
    ::testing::Values(NamedFilter{"Presence", "(objectClass=*)"}, NamedFilter{"Equality", "(cn=x)"},
        NamedFilter{"EscapedBytes", "(cn=\\2a\\c3\\bc\\00)"}, NamedFilter{"GreaterOrEqual", "(cn>=5)"},
        NamedFilter{"LessOrEqual", "(cn<=5)"}, NamedFilter{"Approximate", "(cn~=a)"},
        NamedFilter{"Or", "(|(a=1)(b=2)(c=3))"}, NamedFilter{"Substrings", "(cn=*a*b*)"},
        NamedFilter{"Beginning", "(cn=a*)"}, NamedFilter{"Ending", "(cn=*a)"},
        NamedFilter{"Not", "(!(cn=x))"},
        NamedFilter{"MatchingRule", "(userAccountControl:1.2.840.113556.1.4.803:=2)"},
        NamedFilter{"MatchingRuleOfTheDn", "(cn:dn:=x)"}, NamedFilter{"True", "(&)"}),
    ::testing::PrintToStringParamName());

struct Mismatch
{
    const char* name;
    std::function<void(Expectation&)> demand;
    const char* complaint;
};

void PrintTo(const Mismatch& mismatch, std::ostream* out) { *out << mismatch.name; }

class WrongSearch : public ::testing::TestWithParam<Mismatch>
{};

TEST_P(WrongSearch, IsRefusedAndNamed)
{
    ScriptedServer server;
    {
        auto expectation = server.expectSearch();
        GetParam().demand(expectation);
        expectation.answer(done());
    }
    const Handle ld = connectTo(server);

    const auto [type, chain] = answerTo(ld, startSearch(ld));

    EXPECT_EQ(type, LDAP_RES_SEARCH_RESULT);
    EXPECT_EQ(outcomeOf(ld, chain).code, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_THAT(server.takeProblems(), ElementsAre(HasSubstr(GetParam().complaint)));
}

INSTANTIATE_TEST_SUITE_P(ScriptedServer, WrongSearch,
    ::testing::Values(Mismatch{"base", [](Expectation& e) { e.base("dc=y"); }, "not so is base \"dc=y\""},
        Mismatch{"scope", [](Expectation& e) { e.scope(0); }, "not so is scope 0"},
        Mismatch{"deref", [](Expectation& e) { e.deref(3); }, "not so is deref 3"},
        Mismatch{"sizeLimit", [](Expectation& e) { e.sizeLimit(1); }, "not so is size limit 1"},
        Mismatch{"timeLimit", [](Expectation& e) { e.timeLimit(1); }, "not so is time limit 1"},
        Mismatch{"typesOnly", [](Expectation& e) { e.typesOnly(true); }, "not so is types only"},
        Mismatch{"filter", [](Expectation& e) { e.filter("(cn=x)"); }, "not so is filter (cn=x)"},
        Mismatch{"attributes", [](Expectation& e) { e.attributes({"cn"}); }, "not so is attributes cn"},
        Mismatch{"paged", [](Expectation& e) { e.paged(2, ""); }, "not so is control 1.2.840.113556.1.4.319"},
        Mismatch{"last", [](Expectation& e) { e.base("dc=x").scope(2).scope(1); }, "not so is scope 1"}),
    ::testing::PrintToStringParamName());

TEST(ScriptedServer, TellsPagingControlsApartBySizeCookieAndCriticality)
{
    ScriptedServer server;
    server.expectSearch().paged(2, Bytes("c\0k", 3)).answer(done());
    server.expectSearch().paged(2, "", false).answer(done());
    server.expectSearch().paged(3, "").answer(done());
    const Handle ld = connectTo(server);
    const auto search = [&](ber_int_t size, Bytes cookie, int critical) {
        berval cookieValue{cookie.size(), cookie.data()};
        LDAPControl* control = nullptr;
        ldap_create_page_control(ld.get(), size, &cookieValue, critical, &control);
        std::array<LDAPControl*, 2> controls{control, nullptr};
        const auto [type, chain] = answerTo(ld, startSearch(ld, "dc=x", controls.data()));
        ldap_control_free(control);
        return outcomeOf(ld, chain).code;
    };

    EXPECT_EQ(search(2, Bytes("c\0k", 3), 1), LDAP_SUCCESS);
    EXPECT_EQ(search(2, "", 0), LDAP_SUCCESS);
    EXPECT_EQ(search(3, "x", 1), LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(server.takeProblems().size(), 1U);
}

TEST(ScriptedServer, SendsEntriesReferencesAndAResultWithEverything)
{
    ScriptedServer server;
    server.expectSearch().answer(entry("cn=a,dc=x")
                                     .attr("cn", "a")
                                     .attr("jpegPhoto", {Bytes("\0\xff", 2), ""})
                                     .attr("none", std::vector<Bytes>()),
        reference({"ldap://one/", "ldap://two/"}), intermediate("1.2.3", "half way"), entry("cn=b,dc=x"),
        done(LDAP_SIZELIMIT_EXCEEDED)
            .matched("dc=x")
            .diagnostic("enough")
            .page(Bytes("\0cookie", 7), 42)
            .control({"1.2.3", true, std::nullopt}));
    const Handle ld = connectTo(server);

    const auto [type, chain] = answerTo(ld, startSearch(ld));

    EXPECT_THAT(dnsOf(ld, chain), ElementsAre("cn=a,dc=x", "cn=b,dc=x"));
    EXPECT_THAT(valuesOf(ld, chain, "cn"), ElementsAre("a"));
    EXPECT_THAT(valuesOf(ld, chain, "jpegPhoto"), ElementsAre(Bytes("\0\xff", 2), ""));
    EXPECT_THAT(valuesOf(ld, chain, "none"), IsEmpty());
    EXPECT_EQ(ldap_count_references(ld.get(), chain.get()), 1);
    const auto outcome = outcomeOf(ld, chain);
    EXPECT_EQ(outcome.code, LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(outcome.matched, "dc=x");
    EXPECT_EQ(outcome.diagnostic, "enough");
    EXPECT_THAT(outcome.controls,
        ElementsAre(Pair(kPagedResultsOid, pagedResultsValue(42, Bytes("\0cookie", 7))), Pair("1.2.3", "")));
}

TEST(ScriptedServer, SendsReferralsInAResult)
{
    ScriptedServer server;
    server.expectSearch().answer(done(LDAP_REFERRAL).referrals({"ldap://elsewhere/dc=x"}));
    const Handle ld = connectTo(server);

    const auto [type, chain] = answerTo(ld, startSearch(ld));

    EXPECT_EQ(outcomeOf(ld, chain).code, LDAP_REFERRAL);
    EXPECT_THAT(outcomeOf(ld, chain).referrals, ElementsAre("ldap://elsewhere/dc=x"));
}

TEST(ScriptedServer, SendsAnEntryWhoseDnCannotBeRead)
{
    ScriptedServer server;
    server.expectSearch().answer(
        entry("cn=a,dc=x"), rawOperation(Answer::searchEntry, "no BER"), entry("cn=b,dc=x"), done());
    const Handle ld = connectTo(server);

    const auto [type, chain] = answerTo(ld, startSearch(ld));

    EXPECT_THAT(dnsOf(ld, chain), ElementsAre("cn=a,dc=x", "(unreadable)", "cn=b,dc=x"));
}

TEST(ScriptedServer, SendsAReferenceThatCannotBeParsed)
{
    ScriptedServer server;
    server.expectSearch().answer(rawOperation(Answer::searchReference, "no BER"), done());
    const Handle ld = connectTo(server);

    const auto [type, chain] = answerTo(ld, startSearch(ld));

    char** referrals = nullptr;
    auto* const message = ldap_first_reference(ld.get(), chain.get());
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(ldap_parse_reference(ld.get(), message, &referrals, nullptr, 0), LDAP_DECODING_ERROR);
    ber_memvfree(reinterpret_cast<void**>(referrals));
}

TEST(ScriptedServer, AnswersWhoAmIWithAnyIdentity)
{
    ScriptedServer server;
    server.expectWhoAmI().answer(success().responseValue(Bytes("dn:cn=\0x", 8)));
    const Handle ld = connectTo(server);

    berval* identity = nullptr;
    EXPECT_EQ(ldap_whoami_s(ld.get(), &identity, nullptr, nullptr), LDAP_SUCCESS);
    ASSERT_NE(identity, nullptr);
    EXPECT_EQ(Bytes(identity->bv_val, identity->bv_len), Bytes("dn:cn=\0x", 8));
    ber_bvfree(identity);
}

TEST(ScriptedServer, RefusesStartTls)
{
    ScriptedServer server;
    server.expectStartTls().answer(result(LDAP_UNAVAILABLE).diagnostic("no TLS here"));
    const Handle ld = connectTo(server);

    EXPECT_EQ(ldap_start_tls_s(ld.get(), nullptr, nullptr), LDAP_UNAVAILABLE);
}

TEST(ScriptedServer, AnswersATlsHandshakeWithOtherBytes)
{
    ScriptedServer server;
    server.expectStartTls().answer(
        success(), awaitRawInput(), raw("this is no TLS record"), closeConnection());
    const Handle ld = connectTo(server);

    EXPECT_EQ(ldap_start_tls_s(ld.get(), nullptr, nullptr), LDAP_CONNECT_ERROR);
}

TEST(ScriptedServer, KeepsAnAnswerBackUntilTheGateOpens)
{
    ScriptedServer server;
    const Gate gate;
    server.expectBind("", "").answer(waitFor(gate), success());
    const Handle ld = connectTo(server);
    auto bound = std::async(std::launch::async, [&] { return simpleBind(ld, "", ""); });

    server.waitForRequests(1);
    EXPECT_EQ(bound.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    gate.open();

    EXPECT_EQ(bound.get(), LDAP_SUCCESS);
}

TEST(ScriptedServer, LetsOneAnswerOvertakeAnotherOnTheSameConnection)
{
    ScriptedServer server;
    const Gate gate;
    server.expectSearch().base("dc=late").answer(waitFor(gate), entry("cn=late"), done());
    server.expectSearch().base("dc=early").answer(entry("cn=early"), done());
    const Handle ld = connectTo(server);
    const int late = startSearch(ld, "dc=late");
    const int early = startSearch(ld, "dc=early");

    EXPECT_THAT(dnsOf(ld, answerTo(ld, early).second), ElementsAre("cn=early"));
    gate.open();
    EXPECT_THAT(dnsOf(ld, answerTo(ld, late).second), ElementsAre("cn=late"));
}

TEST(ScriptedServer, CutsOneAnswerIntoFortyWrites)
{
    ScriptedServer server;
    const Steps whole{entry("cn=a,dc=x").attr("cn", Bytes(1000, 'a')), done()};
    server.expectSearch().answer(inSegments(40, whole));
    const Handle ld = connectTo(server);

    const auto [type, chain] = answerTo(ld, startSearch(ld));

    EXPECT_THAT(valuesOf(ld, chain, "cn"), ElementsAre(Bytes(1000, 'a')));
    EXPECT_EQ(writesOf(inSegments(40, whole), server.requests().at(0)), 40U);
}

TEST(ScriptedServer, SendsTwoAnswersInOneWrite)
{
    ScriptedServer server;
    const Steps both = together({entry("cn=a,dc=x"), done()});
    server.expectSearch().answer(both);
    const Handle ld = connectTo(server);

    EXPECT_THAT(dnsOf(ld, answerTo(ld, startSearch(ld)).second), ElementsAre("cn=a,dc=x"));
    EXPECT_EQ(writesOf(both, server.requests().at(0)), 1U);
}

TEST(ScriptedServer, HoldsTheRestOfASplitAnswerBack)
{
    const Gate gate;
    ScriptedServer server;
    server.expectWhoAmI().answer(splitAt(1, gate, raw("abc")));
    const TcpClient client(server.port());
    client.send(encodeMessage(7, tlv(0x77, tlv(0x80, kWhoAmIOid)), {}));

    EXPECT_EQ(client.receive(), "a");
    EXPECT_TRUE(client.nothingToRead());
    gate.open();
    EXPECT_EQ(client.receive(), "bc");
}

TEST(ScriptedServer, TellsTheTestHowFarAnAnswerIs)
{
    ScriptedServer server;
    const Gate sent;
    server.greet({raw("hello"), opens(sent)});
    const TcpClient client(server.port());

    sent.wait("the greeting");

    EXPECT_EQ(client.receive(), "hello");
}

TEST(ScriptedServer, ClosesHalfClosesAndResets)
{
    ScriptedServer server;
    const Gate goOn;
    server.greet(closeConnection());
    EXPECT_EQ(TcpClient(server.port()).receive(), "");

    server.greet({raw("x"), waitFor(goOn), resetConnection()});
    const TcpClient reset(server.port());
    EXPECT_EQ(reset.receive(), "x");
    goOn.open();
    EXPECT_EQ(reset.receive(), "(reset)");

    server.greet(halfClose());
    server.expectUnbind().answer(closeConnection());
    const TcpClient half(server.port());
    EXPECT_EQ(half.receive(), "");
    half.send(encodeMessage(1, tlv(0x42, ""), {}));
    server.waitUntilMet();
}

TEST(ScriptedServer, SendsOnlyTheBeginningOfAMessage)
{
    ScriptedServer server;
    server.expectSearch().answer(truncated(9, done()), closeConnection());
    const Handle ld = connectTo(server);

    const auto [type, chain] = answerTo(ld, startSearch(ld));

    EXPECT_EQ(type, -1);
    EXPECT_EQ(chain, nullptr);
}

TEST(ScriptedServer, SendsMegabytesToAClientThatReadsLate)
{
    ScriptedServer server;
    const Gate sent;
    const Bytes value(16U << 20U, 'v');
    server.expectSearch().answer(entry("cn=big").attr("data", value), done(), opens(sent));
    const Handle ld = connectTo(server);
    const int id = startSearch(ld);
    server.waitForRequests(1);
    EXPECT_FALSE(sent.isOpen());

    const auto [type, chain] = answerTo(ld, id);

    EXPECT_EQ(valuesOf(ld, chain, "data").at(0), value);
    sent.wait("the last byte");
}

TEST(ScriptedServer, AnswersAnotherMessageIdThanAsked)
{
    ScriptedServer server;
    server.expectSearch().answer(entry("cn=stranger").messageId(4711), entry("cn=a"), done());
    const Handle ld = connectTo(server);

    EXPECT_THAT(dnsOf(ld, answerTo(ld, startSearch(ld)).second), ElementsAre("cn=a"));
}

TEST(ScriptedServer, GivesNoticeOfDisconnectionUnasked)
{
    ScriptedServer server;
    server.greet({noticeOfDisconnection(LDAP_UNAVAILABLE, "going down"), closeConnection()});
    const TcpClient client(server.port());
    Bytes received;
    for (Bytes more = client.receive(); !more.empty(); more = client.receive())
        received += more;

    const auto parts = elements(elements(received).at(0).content);
    EXPECT_EQ(numberIn(parts.at(0).content), 0);
    EXPECT_EQ(parts.at(1).tag, 0x78U);
    EXPECT_THAT(parts.at(1).content, HasSubstr(kNoticeOfDisconnectionOid));
    EXPECT_THAT(parts.at(1).content, HasSubstr("going down"));
}

TEST(ScriptedServer, ServesConnectionsAtOnceEachWithItsOwnScript)
{
    ScriptedServer server;
    const Gate gate;
    server.expectBind("cn=one", "1").onConnection(0).answer(waitFor(gate), success());
    server.expectBind("cn=two", "2").onConnection(1).answer(result(LDAP_BUSY));
    const Handle first = connectTo(server);
    const Handle second = connectTo(server);
    auto bound = std::async(std::launch::async, [&] { return simpleBind(first, "cn=one", "1"); });
    server.waitForRequests(1);

    EXPECT_EQ(simpleBind(second, "cn=two", "2"), LDAP_BUSY);
    EXPECT_EQ(server.openConnections(), 2U);
    gate.open();
    EXPECT_EQ(bound.get(), LDAP_SUCCESS);
}

TEST(ScriptedServer, RefusesConnectionsOnceItHasStoppedListening)
{
    ScriptedServer server;
    server.stopListening();

    EXPECT_EQ(TcpClient(server.port()).connectError(), ECONNREFUSED);
}

TEST(ScriptedServer, SeesTheClientAbandonUnbindAndClose)
{
    ScriptedServer server;
    server.expectSearch();
    Handle ld = connectTo(server);
    const int id = startSearch(ld);
    server.waitForRequests(1);

    ldap_abandon_ext(ld.get(), id, nullptr, nullptr);
    ld.reset();

    const auto requests = server.waitForRequests(3);
    EXPECT_EQ(requests.at(1).as<AbandonRequest>().messageId, id);
    EXPECT_TRUE(requests.at(2).is<UnbindRequest>());
    server.waitForClose(0);
    EXPECT_EQ(server.openConnections(), 0U);
}

TEST(ScriptedServer, LetsAHandlerServeALongConversation)
{
    constexpr int kSearches = 200;
    ScriptedServer server;
    server.otherwise([](const Request& request) -> Steps {
        return {entry("cn=for," + request.as<SearchRequest>().base), done()};
    });
    const Handle ld = connectTo(server);

    for (int i = 0; i < kSearches; ++i) {
        const std::string base = "dc=" + std::to_string(i);
        EXPECT_THAT(dnsOf(ld, answerTo(ld, startSearch(ld, base)).second), ElementsAre("cn=for," + base));
    }
    EXPECT_EQ(server.requests().size(), std::size_t{kSearches});
}

TEST(ScriptedServer, ReportsARequestThatNothingExpects)
{
    ScriptedServer server;

    EXPECT_EQ(simpleBind(connectTo(server), "cn=a", "b"), LDAP_UNWILLING_TO_PERFORM);

    EXPECT_THAT(server.takeProblems(),
        ElementsAre(HasSubstr("nothing more expected; got connection 0, message 1: bind v3 dn=\"cn=a\"")));
}

TEST(ScriptedServer, ReportsTheWrongCredentialsAndTheExpectationThatStaysUnmet)
{
    ScriptedServer server;
    server.expectBind("cn=a", "right").answer(success());

    EXPECT_EQ(simpleBind(connectTo(server), "cn=a", "wrong"), LDAP_UNWILLING_TO_PERFORM);

    EXPECT_THAT(server.takeProblems(),
        ElementsAre(
            HasSubstr("expected a simple bind of \"cn=a\" with \"right\"; got"), HasSubstr("never came")));
}

TEST(ScriptedServer, ReportsBytesThatAreNoLdap)
{
    ScriptedServer server;
    const TcpClient client(server.port());
    client.send("GET / HTTP/1.0\r\n\r\n");

    EXPECT_EQ(client.receive(), "");
    EXPECT_THAT(
        server.takeProblems(), ElementsAre(HasSubstr("malformed message: it begins with \"GET / HTTP")));
}

TEST(ScriptedServer, ReadsARequestThatComesByteByByte)
{
    ScriptedServer server;
    server.expectWhoAmI().answer(raw("got it"));
    const TcpClient client(server.port());
    for (const char byte : encodeMessage(1, tlv(0x77, tlv(0x80, kWhoAmIOid)), {}))
        client.send(Bytes(1, byte));

    EXPECT_EQ(client.receive(), "got it");
}

TEST(LdapMessages, EncodeTheCriticalityOfAControlThatIsCriticalOnly)
{
    const auto controlsOf = [](const Control& control) {
        const auto message = done().control(control).encode(Request());
        return elements(elements(message).at(0).content).at(2).content;
    };

    EXPECT_EQ(controlsOf({"1.2", true, "v"}), tlv(0x30, tlv(4, "1.2") + tlv(1, "\xff") + tlv(4, "v")));
    EXPECT_EQ(controlsOf({"1.2", false, ""}), tlv(0x30, tlv(4, "1.2") + tlv(4, "")));
    EXPECT_EQ(controlsOf({"1.2", false, std::nullopt}), tlv(0x30, tlv(4, "1.2")));
}

TEST(BerNumber, RoundTripsAtTheEdgesOfEachLength)
{
    for (const std::int64_t number :
        {0L, 1L, 127L, 128L, 255L, 256L, 32767L, 32768L, 2147483647L, -1L, -128L, -129L})
        EXPECT_EQ(numberIn(elements(berNumber(number)).at(0).content), number);
    EXPECT_EQ(berNumber(127), Bytes("\x02\x01\x7f"));
    EXPECT_EQ(berNumber(128), Bytes("\x02\x02\x00\x80", 4));
}

TEST(Gate, TellsWhatWasWaitedForInVain)
{
    const Gate gate;
    try {
        gate.wait("the end of the world", std::chrono::milliseconds(1));
        FAIL() << "the wait ended without the gate";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "waited in vain for the end of the world");
    }
}

} // namespace

} // namespace tavo::test
