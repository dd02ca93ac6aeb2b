#include "support/call_recorder.h"
#include "support/scripted_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>
#include <openssl/err.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <future>
#include <string>

namespace tavo::test {

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::string why(const std::function<void()>& function)
{
    try {
        function();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "nothing was thrown";
}

LDAP* makeHandle(const std::string& url = "ldap://127.0.0.1:1")
{
    LDAP* ld = nullptr;
    EXPECT_EQ(ldap_initialize(&ld, url.c_str()), LDAP_SUCCESS);
    const int version = LDAP_VERSION3;
    EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version), LDAP_OPT_SUCCESS);
    return ld;
}

LDAPMessage* searchAll(LDAP* ld)
{
    LDAPMessage* chain = nullptr;
    EXPECT_EQ(ldap_search_ext_s(
                  ld, "dc=x", LDAP_SCOPE_SUBTREE, nullptr, nullptr, 0, nullptr, nullptr, nullptr, 0, &chain),
        LDAP_SUCCESS);
    return chain;
}

/// A recorder, and a handle to a server that has one entry.
class CallRecorderWithServer : public ::testing::Test
{
protected:
    CallRecorderWithServer()
    {
        server.otherwise([](const Request&) -> Steps {
            return {entry("cn=a,dc=x").attr("cn", {"a", "b"}), reference({"ldap://one/", "ldap://two/"}),
                done().page("cookie", 7)};
        });
    }
    ~CallRecorderWithServer() override { ldap_destroy(ld); }

    ScriptedServer server;
    CallRecorder recorder;
    LDAP* ld = makeHandle(server.url());
};

TEST(CallRecorder, KeepsTheOrderOfCallsAndTheThreadOfEach)
{
    CallRecorder recorder;

    ERR_clear_error();
    LDAP* ld = makeHandle();
    std::async(std::launch::async, [&] { ldap_destroy(ld); }).get();

    EXPECT_THAT(recorder.names(),
        ElementsAre("ERR_clear_error", "ldap_initialize", "ldap_set_option", "ldap_destroy"));
    EXPECT_EQ(recorder.only("ldap_initialize").thread, std::this_thread::get_id());
    EXPECT_NE(recorder.only("ldap_destroy").thread, std::this_thread::get_id());
    EXPECT_EQ(recorder.only("ldap_initialize").result, LDAP_SUCCESS);
}

TEST(CallRecorder, CopiesOptionsByTheirKind)
{
    CallRecorder recorder;
    LDAP* ld = makeHandle();
    const timeval limit{5, 6};
    ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &limit);
    ldap_set_option(ld, LDAP_OPT_X_TLS_CACERTFILE, "/some/file");
    int version = 0;
    ldap_get_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    char bytes[] = {'a', '\0', 'b'};
    const berval key{sizeof bytes, bytes};
    ldap_set_option(ld, LDAP_OPT_X_TLS_KEY, &key);
    berval copy{};
    ldap_get_option(ld, LDAP_OPT_X_TLS_KEY, &copy);
    ber_memfree(copy.bv_val);
    ldap_set_option(ld, LDAP_OPT_X_TLS_KEY, nullptr);
    ldap_destroy(ld);

    const auto set = recorder.calls("ldap_set_option");
    EXPECT_EQ(set.at(0).number("option"), LDAP_OPT_PROTOCOL_VERSION);
    EXPECT_EQ(set.at(0).number("invalue"), 3);
    EXPECT_TRUE(set.at(1).isNull("invalue"));
    EXPECT_EQ(set.at(2).time("invalue"), (RecordedCall::Time{5, 6}));
    EXPECT_EQ(set.at(3).text("invalue"), "/some/file");
    EXPECT_EQ(set.at(4).text("invalue"), Bytes("a\0b", 3));
    EXPECT_TRUE(set.at(5).isNull("invalue"));
    const auto got = recorder.calls("ldap_get_option");
    EXPECT_EQ(got.at(0).number("outvalue"), 3);
    EXPECT_EQ(got.at(1).text("outvalue"), Bytes("a\0b", 3));
}

TEST(CallRecorder, NumbersHandlesSoThatADuplicateIsToldFromItsOriginal)
{
    CallRecorder recorder;
    LDAP* ld = makeHandle();
    LDAP* copy = ldap_dup(ld);
    ldap_destroy(ld);
    ldap_destroy(copy);
    LDAP* perhapsAtTheSameAddress = makeHandle();
    ldap_destroy(perhapsAtTheSameAddress);

    EXPECT_EQ(recorder.only("ldap_dup").handle(), 1);
    const auto destroyed = recorder.calls("ldap_destroy");
    EXPECT_EQ(destroyed.at(0).handle(), 1);
    EXPECT_EQ(destroyed.at(1).handle(), 2);
    EXPECT_EQ(destroyed.at(2).handle(), 3);
}

TEST_F(CallRecorderWithServer, CopiesEveryArgumentOfABind)
{
    server.expectBind("cn=admin", Bytes("a\0b", 3)).answer(success());
    berval credentials{3, const_cast<char*>("a\0b")};
    EXPECT_EQ(ldap_sasl_bind_s(ld, "cn=admin", LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr, nullptr),
        LDAP_SUCCESS);

    const auto call = recorder.only("ldap_sasl_bind_s");
    EXPECT_EQ(call.handle(), 1);
    EXPECT_EQ(call.text("dn"), "cn=admin");
    EXPECT_TRUE(call.isNull("mechanism"));
    EXPECT_EQ(call.text("cred"), Bytes("a\0b", 3));
    EXPECT_TRUE(call.isNull("serverctrls"));
    EXPECT_TRUE(call.isNull("clientctrls"));
    EXPECT_TRUE(call.isNull("servercredp"));
}

TEST_F(CallRecorderWithServer, CopiesEveryArgumentOfASearchAndTellsNullFromEmpty)
{
    berval cookie{0, nullptr};
    LDAPControl* page = nullptr;
    ASSERT_EQ(ldap_create_page_control(ld, 2, &cookie, 1, &page), LDAP_SUCCESS);
    std::array<LDAPControl*, 2> controls{page, nullptr};
    std::string name = "cn";
    std::array<char*, 2> names{name.data(), nullptr};
    std::array<char*, 1> noNames{nullptr};
    timeval limit{30, 0};
    int first = 0;
    int second = 0;
    ldap_search_ext(ld, "dc=x", LDAP_SCOPE_ONELEVEL, "(cn=a)", names.data(), 1, controls.data(), nullptr,
        &limit, 5, &first);
    ldap_search_ext(
        ld, "", LDAP_SCOPE_BASE, nullptr, noNames.data(), 0, nullptr, nullptr, nullptr, 0, &second);
    ldap_control_free(page);
    name = "changed";

    const auto searches = recorder.calls("ldap_search_ext");
    const auto& full = searches.at(0);
    EXPECT_EQ(full.text("base"), "dc=x");
    EXPECT_EQ(full.number("scope"), LDAP_SCOPE_ONELEVEL);
    EXPECT_EQ(full.text("filter"), "(cn=a)");
    EXPECT_THAT(full.texts("attrs"), ElementsAre("cn"));
    EXPECT_EQ(full.number("attrsonly"), 1);
    EXPECT_THAT(
        full.controls("serverctrls"), ElementsAre(Control{kPagedResultsOid, true, pagedResultsValue(2, "")}));
    EXPECT_TRUE(full.isNull("clientctrls"));
    EXPECT_EQ(full.time("timeout"), (RecordedCall::Time{30, 0}));
    EXPECT_EQ(full.number("sizelimit"), 5);
    EXPECT_EQ(full.number("msgid"), first);
    const auto& bare = searches.at(1);
    EXPECT_EQ(bare.text("base"), "");
    EXPECT_TRUE(bare.isNull("filter"));
    EXPECT_THAT(bare.texts("attrs"), IsEmpty());
    EXPECT_TRUE(bare.isNull("serverctrls"));
    EXPECT_TRUE(bare.isNull("timeout"));
}

TEST_F(CallRecorderWithServer, ReportsNothingWhenEverythingIsFreed)
{
    LDAPMessage* chain = searchAll(ld);
    LDAPMessage* found = ldap_first_entry(ld, chain);
    ldap_memfree(ldap_get_dn(ld, found));
    BerElement* iterator = nullptr;
    for (char* name = ldap_first_attribute(ld, found, &iterator); name;
         name = ldap_next_attribute(ld, found, iterator))
        ldap_memfree(name);
    ber_free(iterator, 0);
    ldap_value_free_len(ldap_get_values_len(ld, found, "cn"));
    char** referrals = nullptr;
    ldap_parse_reference(ld, ldap_first_reference(ld, chain), &referrals, nullptr, 0);
    ber_memvfree(reinterpret_cast<void**>(referrals));
    LDAPControl** controls = nullptr;
    ldap_parse_result(ld, chain, nullptr, nullptr, nullptr, nullptr, &controls, 1);
    berval cookie{0, nullptr};
    ldap_parse_pageresponse_control(
        ld, ldap_control_find(kPagedResultsOid, controls, nullptr), nullptr, &cookie);
    ber_memfree(cookie.bv_val);
    ldap_controls_free(controls);
    ldap_memfree(nullptr);
    ldap_destroy(ldap_dup(ld));

    const auto problems = recorder.takeProblems();

    EXPECT_THAT(problems, ElementsAre("never freed: a handle of ldap_initialize"));
    EXPECT_THAT(
        recorder.only("ldap_parse_reference").texts("referrals"), ElementsAre("ldap://one/", "ldap://two/"));
    EXPECT_EQ(recorder.only("ldap_parse_pageresponse_control").text("cookie"), "cookie");
    ldap_destroy(std::exchange(ld, nullptr));
    EXPECT_THAT(recorder.takeProblems(), ElementsAre("ldap_destroy of something that was never handed out"));
    ld = makeHandle();
}

TEST_F(CallRecorderWithServer, NamesWhatIsNeverFreed)
{
    LDAPMessage* chain = searchAll(ld);
    LDAPMessage* found = ldap_first_entry(ld, chain);
    char* dn = ldap_get_dn(ld, found);
    BerElement* iterator = nullptr;
    char* name = ldap_first_attribute(ld, found, &iterator);
    berval** values = ldap_get_values_len(ld, found, "cn");

    EXPECT_THAT(recorder.takeProblems(),
        ::testing::UnorderedElementsAre("never freed: a handle of ldap_initialize",
            "never freed: the result of ldap_search_ext_s", "never freed: the DN of ldap_get_dn",
            "never freed: the name of ldap_first_attribute",
            "never freed: the iterator of ldap_first_attribute",
            "never freed: the values of ldap_get_values_len"));

    CallRecorder::real(ldap_memfree)(dn);
    CallRecorder::real(ldap_memfree)(name);
    CallRecorder::real(ber_free)(iterator, 0);
    CallRecorder::real(ldap_value_free_len)(values);
    CallRecorder::real(ldap_msgfree)(chain);
    CallRecorder::real(ldap_destroy)(std::exchange(ld, makeHandle()));
}

TEST_F(CallRecorderWithServer, LetsAttributeIteratorsBeKeptOnPurpose)
{
    recorder.mayKeepAttributeIterators();
    LDAPMessage* chain = searchAll(ld);
    BerElement* iterator = nullptr;
    ldap_memfree(ldap_first_attribute(ld, ldap_first_entry(ld, chain), &iterator));
    ldap_msgfree(chain);
    ldap_destroy(std::exchange(ld, nullptr));

    EXPECT_THAT(recorder.takeProblems(), IsEmpty());

    CallRecorder::real(ber_free)(iterator, 0);
    ld = makeHandle();
}

TEST_F(CallRecorderWithServer, ReportsASecondFreeAndDoesNotCarryItOut)
{
    LDAPMessage* chain = searchAll(ld);
    ldap_msgfree(chain);
    ldap_msgfree(chain);
    ldap_destroy(std::exchange(ld, nullptr));

    EXPECT_THAT(recorder.takeProblems(),
        ElementsAre("ldap_msgfree of the result of ldap_search_ext_s, which had been freed before"));
    ld = makeHandle();
}

TEST_F(CallRecorderWithServer, ReportsAFreeWithTheWrongFunction)
{
    LDAPMessage* chain = searchAll(ld);
    ber_memfree(ldap_get_dn(ld, ldap_first_entry(ld, chain)));
    ldap_msgfree(chain);
    ldap_destroy(std::exchange(ld, nullptr));

    EXPECT_THAT(recorder.takeProblems(),
        ElementsAre("ber_memfree of the DN of ldap_get_dn, which is for ldap_memfree"));
    ld = makeHandle();
}

TEST_F(CallRecorderWithServer, FailsTheCallThatItIsToldToWithCodeAndErrno)
{
    recorder.fail(ldap_search_ext_s, LDAP_SERVER_DOWN, {.nth = 2, .error = ECONNRESET});
    LDAPMessage* untouched = reinterpret_cast<LDAPMessage*>(this);
    LDAPMessage* chain = untouched;

    ldap_msgfree(searchAll(ld));
    const int code = ldap_search_ext_s(
        ld, "dc=x", LDAP_SCOPE_BASE, nullptr, nullptr, 0, nullptr, nullptr, nullptr, 0, &chain);
    const int error = errno;
    ldap_msgfree(searchAll(ld));

    EXPECT_EQ(code, LDAP_SERVER_DOWN);
    EXPECT_EQ(error, ECONNRESET);
    EXPECT_EQ(chain, untouched);
    EXPECT_EQ(server.requests().size(), 2U);
    EXPECT_EQ(recorder.calls("ldap_search_ext_s").at(1).error, ECONNRESET);
}

TEST_F(CallRecorderWithServer, ReturnsNullInPlaceOfMemory)
{
    recorder.fail(ldap_dup, nullptr, {.error = ENOMEM});
    recorder.fail(ber_strdup, nullptr, {.nth = 2});

    EXPECT_EQ(ldap_dup(ld), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    char* copy = ber_strdup("text");
    EXPECT_STREQ(copy, "text");
    EXPECT_EQ(ber_strdup("text"), nullptr);
    ber_memfree(copy);
}

TEST(CallRecorder, FreesEvenWhenTheFreeingCallIsToldToFail)
{
    CallRecorder recorder;
    recorder.fail(ldap_destroy, LDAP_OTHER);
    LDAP* ld = makeHandle();

    EXPECT_EQ(ldap_destroy(ld), LDAP_OTHER);
}

TEST_F(CallRecorderWithServer, FreesTheChainEvenWhenParsingItIsToldToFail)
{
    recorder.fail(ldap_parse_result, LDAP_DECODING_ERROR);

    EXPECT_EQ(ldap_parse_result(ld, searchAll(ld), nullptr, nullptr, nullptr, nullptr, nullptr, 1),
        LDAP_DECODING_ERROR);
}

TEST(CallRecorder, LeavesTheErrnoThatItIsToldTo)
{
    CallRecorder recorder;
    recorder.leaveErrno(ldap_initialize, EXDEV);
    recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
    LDAP* ld = nullptr;

    EXPECT_EQ(ldap_initialize(&ld, "ldap://127.0.0.1:1"), LDAP_SUCCESS);
    EXPECT_EQ(errno, EXDEV);
    ldap_destroy(ld);
    EXPECT_EQ(errno, ENOTEMPTY);
    errno = 0;
    EXPECT_EQ(ldap_is_ldaps_url("ldaps://x"), 1);
    EXPECT_EQ(errno, 0);
}

TEST_F(CallRecorderWithServer, CallsAReplacementThatMayCallTheRealFunction)
{
    int calls = 0;
    recorder.replace(ldap_result, [&](LDAP* handle, int id, int all, timeval* timeout, LDAPMessage** chain) {
        *chain = nullptr;
        return ++calls == 1 ? 0 : CallRecorder::real(ldap_result)(handle, id, all, timeout, chain);
    });
    int id = 0;
    ldap_search_ext(ld, "dc=x", LDAP_SCOPE_SUBTREE, nullptr, nullptr, 0, nullptr, nullptr, nullptr, 0, &id);
    LDAPMessage* chain = nullptr;
    timeval patience{30, 0};

    EXPECT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, &patience, &chain), 0);
    EXPECT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, &patience, &chain), LDAP_RES_SEARCH_RESULT);

    EXPECT_EQ(recorder.calls("ldap_result").at(1).number("msgid"), id);
    ldap_msgfree(chain);
}

TEST(CallRecorder, ShowsACallThatHasNotReturned)
{
    CallRecorder recorder;
    const Gate gate;
    recorder.replace(nanosleep, [&](const timespec*, timespec*) {
        gate.wait("the test");
        return 0;
    });
    auto sleeping = std::async(std::launch::async, [] {
        const timespec hour{3600, 7};
        return nanosleep(&hour, nullptr);
    });

    recorder.waitForCalls("nanosleep", 1);
    EXPECT_EQ(recorder.only("nanosleep").time("req"), (RecordedCall::Time{3600, 7}));
    EXPECT_FALSE(recorder.only("nanosleep").result.has_value());
    gate.open();
    recorder.waitForReturns("nanosleep", 1);

    EXPECT_EQ(recorder.only("nanosleep").result, 0);
    EXPECT_EQ(sleeping.get(), 0);
}

TEST(CallRecorder, ShowsWhatWasInACopyWhenItWasFreed)
{
    CallRecorder recorder;
    char* secret = ber_strdup("secret");
    char* wiped = ber_strdup("secret");
    std::fill_n(wiped, 6, '\0');
    ber_memfree(secret);
    ber_memfree(wiped);

    EXPECT_EQ(recorder.calls("ber_memfree").at(0).text("content"), "secret");
    EXPECT_EQ(recorder.calls("ber_memfree").at(1).text("content"), Bytes(6, '\0'));
}

TEST(CallRecorder, PutsWordsIntoOpenSslsMouth)
{
    CallRecorder recorder;
    const unsigned long certificateVerifyFailed = 0x0A000086;
    recorder.fail(ERR_get_error, certificateVerifyFailed, {.nth = 1});

    EXPECT_EQ(ERR_GET_LIB(ERR_get_error()), ERR_LIB_SSL);
    EXPECT_EQ(ERR_get_error(), 0U);
}

TEST(CallRecorder, TellsWhatAnArgumentIsNot)
{
    CallRecorder recorder;
    ldap_is_ldaps_url("ldaps://x");
    const auto call = recorder.only("ldap_is_ldaps_url");

    EXPECT_EQ(describe(call), "ldap_is_ldaps_url(url=\"ldaps://x\") = 1");
    EXPECT_THAT(
        why([&] { call.number("url"); }), HasSubstr("no such kind of argument \"url\" in ldap_is_ldaps_url"));
    EXPECT_THAT(why([&] { call.isNull("uri"); }), HasSubstr("no argument \"uri\""));
    EXPECT_THAT(why([&] { recorder.only("ldap_dup"); }), AllOf(HasSubstr("ldap_dup"), HasSubstr("0 times")));
}

TEST(CallRecorder, IsTheOnlyOne)
{
    CallRecorder recorder;

    EXPECT_THAT(why([] { CallRecorder second; }), HasSubstr("there is a call recorder already"));
}

TEST(CallRecorder, LetsCallsThroughUnseenWhenThereIsNone)
{
    errno = EXDEV;
    LDAP* ld = makeHandle();
    EXPECT_NE(ld, nullptr);
    const CallRecorder recorder;
    EXPECT_THAT(recorder.calls(), IsEmpty());
    CallRecorder::real(ldap_destroy)(ld);
}

TEST(CallRecorder, KeepsItsBooksStraightWhenThreadsCallAtOnce)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 200;
    CallRecorder recorder;
    LDAP* ld = makeHandle();
    std::vector<std::future<void>> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.push_back(std::async(std::launch::async, [ld] {
            for (int round = 0; round < kRounds; ++round)
                ldap_destroy(ldap_dup(ld));
        }));
    for (auto& thread : threads)
        thread.get();
    ldap_destroy(ld);

    EXPECT_EQ(recorder.count("ldap_dup"), std::size_t{kThreads * kRounds});
    EXPECT_THAT(recorder.takeProblems(), IsEmpty());
}

} // namespace

} // namespace tavo::test
