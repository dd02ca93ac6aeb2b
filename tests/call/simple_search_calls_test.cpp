#include "search_calls_test.h"
#include "support/assertion_capture.h"
#include <ldap/private/page_cookie.h>
#include <ldap/private/search_response.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <new>
#include <string_view>

namespace tavo::test {

namespace {

using ldap::BaseError;

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class SimpleSearchCalls : public SearchCalls
{
protected:
    /// Has the blocking search come back with what the server sent, but with another code.
    void returnInsteadOfTheServersCode(int code)
    {
        recorder.replace(ldap_search_ext_s,
            [=](LDAP* ld, const char* base, int scope, const char* filter, char** attributes,
                int attributesOnly, LDAPControl** serverControls, LDAPControl** clientControls,
                timeval* timeout, int sizeLimit, LDAPMessage** chain) {
                CallRecorder::real(ldap_search_ext_s)(ld, base, scope, filter, attributes, attributesOnly,
                    serverControls, clientControls, timeout, sizeLimit, chain);
                errno = EXDEV;
                return code;
            });
    }

    /// Has every reading of an iteration's next attribute end it with this code.
    void endAttributesWith(int code)
    {
        recorder.replace(ldap_next_attribute, [=](LDAP* ld, LDAPMessage*, BerElement*) -> char* {
            CallRecorder::real(ldap_set_option)(ld, LDAP_OPT_RESULT_CODE, &code);
            return nullptr;
        });
    }
};

TEST_F(SimpleSearchCalls, SendEveryArgumentAndNoControl)
{
    recorder.fail(ldap_search_ext_s, LDAP_SERVER_DOWN);

    EXPECT_THROW(session->simpleSearch(params()), BaseError);
    session->setResponseTimeout(std::chrono::seconds(7));
    EXPECT_THROW(session->simpleSearch(below("dc=x")), BaseError);

    EXPECT_THAT(described(recorder.calls("ldap_search_ext_s")),
        ElementsAre("ldap_search_ext_s(attrs=[cn, mail], attrsonly=0, base=\"dc=x\", clientctrls=null, "
                    "filter=\"(cn=*)\", ld=handle 2, scope=1, serverctrls=null, sizelimit=0, timeout=30 s + "
                    "0) = -1",
            "ldap_search_ext_s(attrs=null, attrsonly=0, base=\"dc=x\", clientctrls=null, filter=null, "
            "ld=handle 3, scope=2, serverctrls=null, sizelimit=0, timeout=7 s + 0) = -1"));
}

TEST_F(SimpleSearchCalls, ThrowTheCodeWithErrnoWhenNothingCameBack)
{
    recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
    recorder.fail(ldap_search_ext_s, LDAP_SERVER_DOWN, {.error = ECONNRESET});

    expectError(thrownBy<BaseError>([&] { session->simpleSearch(params()); }), LDAP_SERVER_DOWN,
        "ldap_search_ext_s"_s, ECONNRESET);

    EXPECT_EQ(recorder.count("ldap_parse_result"), 0U);
}

// As libldap returns when another thread has seen the connection end.
TEST_F(SimpleSearchCalls, TreatASuccessWithoutAResultAsALostConnection)
{
    recorder.fail(ldap_search_ext_s, LDAP_SUCCESS, {.error = ECONNRESET});

    expectError(thrownBy<BaseError>([&] { session->simpleSearch(params()); }), LDAP_SERVER_DOWN,
        "ldap_search_ext_s"_s, ECONNRESET);
}

TEST_F(SimpleSearchCalls, DistinguishALostConnectionFromAnAnonymousIdentity)
{
    server.expectSearch().answer(done());
    server.expectSearch().answer(closeConnection());
    recorder.fail(ldap_whoami_s, LDAP_SUCCESS, {.error = ECONNRESET});
    session->simpleSearch(params());
    const auto another = session->createSearchContext(params());

    EXPECT_EQ(session->whoAmI(), "anonymous"_s);
    EXPECT_THROW(session->simpleSearch(params()), BaseError);
    expectError(thrownBy<BaseError>([&] { session->whoAmI(); }), LDAP_SERVER_DOWN, "whoAmI"_s, ECONNRESET);
}

// Nobody has checked the password.
TEST_F(SimpleSearchCalls, DistinguishALostConnectionFromAGoodBindWithOptions)
{
    ldap::ConnectionOptions options;
    options.connectTimeout = std::chrono::hours(1);
    session = std::make_unique<ldap::Session>(
        utils::Url(QString::fromStdString(server.url())), false, false, options);
    server.expectSearch().answer(done());
    server.expectSearch().answer(closeConnection());
    recorder.fail(ldap_sasl_bind_s, LDAP_SUCCESS, {.error = ECONNRESET});
    session->simpleSearch(params());
    const auto another = session->createSearchContext(params());

    session->bind("cn=a"_s, "secret"_s);
    EXPECT_THROW(session->simpleSearch(params()), BaseError);
    expectError(thrownBy<BaseError>([&] { session->bind("cn=a"_s, "secret"_s); }), LDAP_SERVER_DOWN, "bind"_s,
        ECONNRESET);
}

TEST_F(SimpleSearchCalls, TakeAnIdentityThatTheServerSentBeforeItClosedForGood)
{
    server.expectSearch().answer(closeConnection());
    recorder.fail(ldap_whoami_s, LDAP_SUCCESS, {.error = ECONNRESET});
    EXPECT_THROW(session->simpleSearch(params()), BaseError);

    EXPECT_EQ(session->whoAmI(), "anonymous"_s);
}

TEST_F(SimpleSearchCalls, PreferTheMessagesCodeToTheReturnedOneAndFreeTheMessage)
{
    server.expectSearch().answer(entries(1, 2), done(4).matched("dc=x").diagnostic("enough"));
    returnInsteadOfTheServersCode(LDAP_OTHER);
    recorder.leaveErrnoWhenFreeing(ENOTEMPTY);

    expectError(thrownBy<BaseError>([&] { session->simpleSearch(params()); }), LDAP_SIZELIMIT_EXCEEDED,
        "ldap_search_ext_s"_s, EXDEV);

    EXPECT_EQ(recorder.only("ldap_parse_result").number("freeit"), 1);
    EXPECT_EQ(recorder.count("ldap_msgfree"), 0U);
    EXPECT_TRUE(log.contains("Search failed for [dc=x], matched DN [dc=x]; the server says: [enough]"));
}

TEST_F(SimpleSearchCalls, ThrowTheCodeOfAMessageThatCannotBeParsed)
{
    server.expectSearch().answer(done(4));
    recorder.fail(ldap_parse_result, LDAP_DECODING_ERROR);
    recorder.leaveErrno(ldap_search_ext_s, EXDEV);

    expectError(thrownBy<BaseError>([&] { session->simpleSearch(params()); }), LDAP_DECODING_ERROR,
        "ldap_search_ext_s"_s, EXDEV);
}

TEST_F(SimpleSearchCalls, FreeTheMessageOnceAndThenTheHandle)
{
    server.expectSearch().answer(entries(1, 2), done());

    EXPECT_THAT(session->simpleSearch(params()), SizeIs(2));

    EXPECT_THAT(namesAmong(recorder, {"ldap_dup", "ldap_search_ext_s", "ldap_msgfree", "ldap_destroy"}),
        ElementsAre("ldap_dup", "ldap_search_ext_s", "ldap_msgfree", "ldap_destroy"));
    EXPECT_EQ(recorder.only("ldap_destroy").handle(), 2);
}

TEST_F(SimpleSearchCalls, LogEachStep)
{
    server.expectSearch().answer(entries(1, 2), done());
    log.clear();

    session->simpleSearch(params());

    EXPECT_THAT(log.texts(log::Level::debug),
        ElementsAre("Created for [dc=x] with [(cn=*)] filter (attributes: { cn, mail })"));
    EXPECT_THAT(
        log.texts(log::Level::verbose), ElementsAre("Performing non-paged search", "Found 2 entries"));
}

TEST_F(SimpleSearchCalls, NeedAHandleOfTheirOwn)
{
    recorder.fail(ldap_dup, nullptr, {.error = ENOMEM});

    expectError(
        thrownBy<BaseError>([&] { session->simpleSearch(params()); }), LDAP_NO_MEMORY, "ldap_dup"_s, ENOMEM);
}

TEST_F(SimpleSearchCalls, LeaveOutTheEntryWhoseDnCannotBeReadAndNameTheHandlesCode)
{
    server.expectSearch().answer(entries(1, 3), done());
    std::atomic<int> reads = 0;
    recorder.replace(ldap_get_dn, [&](LDAP* ld, LDAPMessage* entry) -> char* {
        if (++reads != 2)
            return CallRecorder::real(ldap_get_dn)(ld, entry);
        const int code = LDAP_DECODING_ERROR;
        CallRecorder::real(ldap_set_option)(ld, LDAP_OPT_RESULT_CODE, &code);
        return nullptr;
    });

    const auto found = session->simpleSearch(params());

    EXPECT_THAT(dnsOf(found), ElementsAre("cn=1", "cn=3"));
    const auto messages = log.messages();
    const auto line = std::find_if(messages.begin(), messages.end(),
        [](const auto& message) { return message.text.rfind("Search entry", 0) == 0; });
    ASSERT_NE(line, messages.end());
    EXPECT_EQ(line->text, "Search entry handling error: ldap_get_dn: Decoding error");
    EXPECT_EQ(line->level, log::Level::debug);
}

TEST_F(SimpleSearchCalls, ReadAValueWithoutBytesAsEmpty)
{
    server.expectSearch().answer(entry("cn=1").attr("cn", "1"), done());
    recorder.replace(ldap_get_values_len, [](LDAP* ld, LDAPMessage* message, const char* name) {
        berval** values = CallRecorder::real(ldap_get_values_len)(ld, message, name);
        if (values != nullptr) {
            CallRecorder::real(ber_memfree)(values[0]->bv_val);
            *values[0] = {7, nullptr};
        }
        return values;
    });

    const auto found = session->simpleSearch(params());

    EXPECT_THAT(found.at(0).getAttribute("cn"_s).values, ElementsAre(QString()));
}

TEST_F(SimpleSearchCalls, LeaveOutAnAttributeWhoseReadingFailsAndSaySo)
{
    server.expectSearch().answer(entry("cn=1").attr("cn", "1").attr("mail", "m"), done());
    recorder.replace(ldap_get_values_len, [](LDAP* ld, LDAPMessage* message, const char* name) {
        if (std::string_view(name) == "cn")
            throw BaseError(LDAP_NO_MEMORY, "values"_s, 0);
        return CallRecorder::real(ldap_get_values_len)(ld, message, name);
    });

    const auto found = session->simpleSearch(params());

    ASSERT_THAT(found.at(0).attributes, SizeIs(1));
    EXPECT_EQ(found.at(0).attributes.at(0).name, "mail"_s);
    const auto messages = log.messages();
    const auto line = std::find_if(messages.begin(), messages.end(),
        [](const auto& message) { return message.text.rfind("No attribute", 0) == 0; });
    ASSERT_NE(line, messages.end());
    EXPECT_EQ(line->text, "No attribute [cn] for [cn=1]: [values: Out of memory]");
    EXPECT_EQ(line->level, log::Level::verbose);
    EXPECT_THAT(line->tag, ::testing::StartsWith("tavo::ldap::LdapSearchEntryAccessor(0x"));
}

TEST_F(SimpleSearchCalls, PassOnOtherExceptionsFromReadingAnAttribute)
{
    server.expectSearch().answer(entry("cn=1").attr("cn", "1"), done());
    recorder.replace(
        ldap_get_values_len, [](LDAP*, LDAPMessage*, const char*) -> berval** { throw std::bad_alloc(); });

    EXPECT_THROW(session->simpleSearch(params()), std::bad_alloc);
}

TEST_F(SimpleSearchCalls, KeepTheAttributesReadBeforeTheIterationFails)
{
    server.expectSearch().answer(entry("cn=1").attr("cn", "1").attr("sn", "2"), done());
    recorder.mayKeepAttributeIterators();
    endAttributesWith(LDAP_NO_MEMORY);
    log.clear();

    const auto found = session->simpleSearch(below("dc=x"));

    ASSERT_THAT(found, SizeIs(1));
    ASSERT_THAT(found.front().attributes, SizeIs(1));
    EXPECT_EQ(found.front().attributes.front().name, "cn"_s);
    EXPECT_THAT(
        log.texts(log::Level::verbose), ElementsAre("Performing non-paged search",
                                            "ldap_next_attribute error: Out of memory", "Found 1 entries"));
}

TEST_F(SimpleSearchCalls, TreatADecodingErrorAsTheEndOfTheAttributes)
{
    server.expectSearch().answer(entry("cn=1").attr("cn", "1"), done());
    recorder.mayKeepAttributeIterators();
    endAttributesWith(LDAP_DECODING_ERROR);

    EXPECT_THAT(session->simpleSearch(below("dc=x")), SizeIs(1));

    EXPECT_FALSE(log.contains("ldap_next_attribute error"));
}

TEST_F(SimpleSearchCalls, NeverFreeTheIteratorOfTheAttributesButEveryName)
{
    server.expectSearch().answer(entry("cn=1").attr("cn", "1").attr("sn", "2"), done());
    recorder.mayKeepAttributeIterators();

    session->simpleSearch(below("dc=x"));
    session.reset();

    EXPECT_EQ(recorder.count("ldap_first_attribute"), 1U);
    EXPECT_EQ(recorder.count("ber_free"), 0U);
    EXPECT_THAT(recorder.takeProblems(), IsEmpty());
}

/// A result that was received, without a session in between.
class ResponseCalls : public SearchCalls
{
protected:
    ResponseCalls() { EXPECT_EQ(ldap_initialize(&m_ld, server.url().c_str()), LDAP_SUCCESS); }
    ~ResponseCalls() override { ldap_destroy(m_ld); }

    LDAP* handle() const { return m_ld; }

    ldap::SearchResponse receive(const ResultMessage& last)
    {
        server.expectSearch().answer(last);
        LDAPMessage* chain = nullptr;
        ldap_search_ext_s(
            m_ld, "dc=x", LDAP_SCOPE_BASE, nullptr, nullptr, 0, nullptr, nullptr, nullptr, 0, &chain);
        return {m_ld, ldap::MessagePtr(chain, &ldap_msgfree)};
    }

private:
    LDAP* m_ld = nullptr;
};

TEST_F(ResponseCalls, GivesTheControlsOfAFailedResultAndReportsIt)
{
    const AssertionCapture assertions;

    auto response = receive(done(4).page("cookie"));

    EXPECT_TRUE(ldap::hasPageControl(response.controls()));
    EXPECT_THAT(assertions.failures(),
        ElementsAre(AssertionCapture::Failure{"ldap/private/utils", 140, "errcode == 0x00", ""}));
}

TEST_F(ResponseCalls, HasNoControlsWithoutAReportWhenTheServerSentNone)
{
    const AssertionCapture assertions;

    auto response = receive(done());

    EXPECT_EQ(response.controls(), nullptr);
    EXPECT_EQ(recorder.only("ldap_parse_result").number("freeit"), 0);
    EXPECT_THAT(assertions.failures(), IsEmpty());
}

TEST_F(ResponseCalls, FreesTheControlsThatCameWithAFailure)
{
    auto response = receive(done().page("cookie"));
    recorder.replace(
        ldap_parse_result, [](LDAP* ld, LDAPMessage* chain, int* code, char** matched, char** diagnostic,
                               char*** referrals, LDAPControl*** controls, int freeChain) {
            CallRecorder::real(ldap_parse_result)(
                ld, chain, code, matched, diagnostic, referrals, controls, freeChain);
            return LDAP_DECODING_ERROR;
        });

    EXPECT_THROW(response.controls(), BaseError);

    EXPECT_EQ(recorder.count("ldap_controls_free"), 1U);
}

TEST_F(ResponseCalls, FreesTheReferralsThatCameWithAFailureAndLooksNoFurther)
{
    server.expectSearch().answer(reference({"ldap://one/"}), reference({"ldap://two/"}), done());
    LDAPMessage* chain = nullptr;
    ldap_search_ext_s(
        handle(), "dc=x", LDAP_SCOPE_BASE, nullptr, nullptr, 0, nullptr, nullptr, nullptr, 0, &chain);
    ldap::SearchResponse response(handle(), ldap::MessagePtr(chain, &ldap_msgfree));
    recorder.replace(ldap_parse_reference,
        [](LDAP* ld, LDAPMessage* message, char*** urls, LDAPControl*** controls, int freeMessage) {
            CallRecorder::real(ldap_parse_reference)(ld, message, urls, controls, freeMessage);
            return LDAP_DECODING_ERROR;
        });
    log.clear();

    response.logReferences();

    EXPECT_EQ(recorder.count("ldap_parse_reference"), 1U);
    EXPECT_EQ(recorder.count("ber_memvfree"), 1U);
    std::vector<std::string> lines;
    for (const auto& message : log.messages()) {
        EXPECT_THAT(message.tag, ::testing::StartsWith("tavo::ldap::SearchResponse(0x"));
        lines.push_back(std::to_string(static_cast<int>(message.level)) + " " + message.text);
    }
    EXPECT_THAT(
        lines, ElementsAre("6 Logging references", "5 Failed to parse LDAP reference entry: Decoding error"));
}

TEST_F(ResponseCalls, ThrowsWhenTheControlsCannotBeParsed)
{
    auto response = receive(done().page("cookie"));
    recorder.fail(ldap_parse_result, LDAP_DECODING_ERROR, {.error = EXDEV});

    expectError(
        thrownBy<BaseError>([&] { response.controls(); }), LDAP_DECODING_ERROR, "ldap_parse_result"_s, 0);
}

} // namespace

} // namespace tavo::test
