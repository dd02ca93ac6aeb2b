#include "call_test.h"
#include "support/no_threads.h"
#include <ldap/manager.h>
#include <ldap/tavo_ldap_ini.h>
#include <tavo_utils/scope_guard.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <memory>
#include <new>
#include <system_error>

namespace tavo::test {

namespace {

using ldap::BaseError;
using ldap::Settings;

using ::testing::ElementsAre;
using ::testing::IsEmpty;

Settings settings()
{
    Settings made;
    made.uri = plainUrl();
    made.adminDn = "cn=admin"_s;
    made.adminPassword = "secret"_s;
    return made;
}

/// The steps of a manager's creation that leave the process.
std::vector<std::string> steps(const CallRecorder& recorder)
{
    std::vector<std::string> steps;
    for (const auto& call : recorder.calls()) {
        if (call.function == "ldap_set_option" && call.number("option") == LDAP_OPT_DEBUG_LEVEL)
            steps.push_back(describe(call));
        if (call.function == "ldap_initialize" || call.function == "ldap_search_ext_s" ||
            call.function == "ldap_sasl_bind_s")
            steps.push_back(call.function);
    }
    return steps;
}

TEST(ManagerCreation, SetsDebugLevelThenConnectsThenDetectsVendorThenBinds)
{
    const int level = ldap::ini().openldapDebugLevel;
    const utils::ScopeGuard restore([&] { ldap::ini().openldapDebugLevel = level; });
    for (const int configured : {256, 0, 256}) {
        ldap::ini().openldapDebugLevel = configured;
        CallRecorder recorder;
        recorder.fail(ldap_set_option, LDAP_OPT_SUCCESS);
        recorder.fail(ldap_search_ext_s, LDAP_SERVER_DOWN);
        recorder.fail(ldap_sasl_bind_s, LDAP_SUCCESS);

        ldap::createManagerOrThrow(settings());

        EXPECT_THAT(steps(recorder), ElementsAre("ldap_set_option(invalue=" + std::to_string(configured) +
                                                     ", ld=null, option=20481) = 0",
                                         "ldap_initialize", "ldap_search_ext_s", "ldap_sasl_bind_s"));
    }
}

TEST(ManagerCreation, UsesTheSettingsForItsSession)
{
    auto changed = settings();
    changed.startTls = true;
    changed.ignoreCertificateErrors = true;
    changed.responseTimeout = std::chrono::seconds(7);
    CallRecorder recorder;
    recorder.fail(ldap_start_tls_s, LDAP_SUCCESS);
    recorder.fail(ldap_search_ext_s, LDAP_SERVER_DOWN);
    recorder.fail(ldap_sasl_bind_s, LDAP_SUCCESS);

    ldap::createManagerOrThrow(changed);

    EXPECT_EQ(recorder.only("ldap_initialize").text("uri"), "ldap://127.0.0.1:1");
    EXPECT_EQ(recorder.calls("ldap_set_option").at(3).number("invalue"), LDAP_OPT_X_TLS_NEVER);
    EXPECT_EQ(recorder.count("ldap_start_tls_s"), 1U);
    EXPECT_EQ(recorder.only("ldap_search_ext_s").time("timeout"), (RecordedCall::Time{7, 0}));
    EXPECT_EQ(recorder.only("ldap_sasl_bind_s").text("dn"), "cn=admin");
    EXPECT_EQ(recorder.only("ldap_sasl_bind_s").text("cred"), "secret");
}

TEST(ManagerCreation, DoesNotConnectWhenTheDebugLevelCannotBeSet)
{
    CallRecorder recorder;
    recorder.fail(ldap_set_option, LDAP_OPT_ERROR, {.error = EXDEV});

    expectError(thrownBy<BaseError>([] { ldap::createManagerOrThrow(settings()); }), LDAP_OPT_ERROR,
        "enable LDAP debug output"_s, EXDEV);

    EXPECT_EQ(recorder.count("ldap_initialize"), 0U);
}

TEST(ManagerCreation, LeavesNoHandleWhenTheBindIsRefused)
{
    CallRecorder recorder;
    recorder.fail(ldap_search_ext_s, LDAP_SERVER_DOWN);
    recorder.fail(ldap_sasl_bind_s, LDAP_INVALID_CREDENTIALS);

    EXPECT_THROW(ldap::createManagerOrThrow(settings()), ldap::InvalidCredentialsError);

    EXPECT_THAT(recorder.takeProblems(), IsEmpty());
}

/// The connection test with these settings; its handle must be gone when it is over.
bool isConnectionGood(CallRecorder& recorder, const Settings& settings)
{
    const bool isGood = ldap::testLdapConnection(settings);
    EXPECT_EQ(recorder.count("ldap_destroy"), 1U);
    return isGood;
}

TEST(ConnectionTestCalls, ConnectsBindsAndDestroysItsHandle)
{
    CallRecorder recorder;
    recorder.fail(ldap_sasl_bind_s, LDAP_SUCCESS);

    EXPECT_TRUE(isConnectionGood(recorder, settings()));

    EXPECT_EQ(recorder.only("ldap_sasl_bind_s").text("dn"), "cn=admin");
    EXPECT_EQ(recorder.count("ldap_search_ext_s"), 0U);
}

TEST(ConnectionTestCalls, DestroysItsHandleWhenTheUpgradeFails)
{
    CallRecorder recorder;
    recorder.fail(ldap_start_tls_s, LDAP_CONNECT_ERROR);
    auto upgrading = settings();
    upgrading.startTls = true;

    EXPECT_FALSE(isConnectionGood(recorder, upgrading));

    EXPECT_EQ(recorder.count("ldap_sasl_bind_s"), 0U);
}

TEST(ConnectionTestCalls, DestroysItsHandleWhenTheBindFails)
{
    for (const int code : {LDAP_INVALID_CREDENTIALS, LDAP_SERVER_DOWN}) {
        CallRecorder recorder;
        recorder.fail(ldap_sasl_bind_s, code);

        EXPECT_FALSE(isConnectionGood(recorder, settings()));
    }
}

TEST(ConnectionTestCalls, PassesOnOtherExceptionsAndDestroysItsHandle)
{
    CallRecorder recorder;
    recorder.replace(ldap_sasl_bind_s,
        [](LDAP*, const char*, const char*, berval*, LDAPControl**, LDAPControl**, berval**) -> int {
            throw std::bad_alloc();
        });

    EXPECT_THROW(ldap::testLdapConnection(settings()), std::bad_alloc);

    EXPECT_EQ(recorder.count("ldap_destroy"), 1U);
}

TEST(AsyncConnectionTestCalls, KeepOtherExceptionsAndCallNoHandler)
{
    CallRecorder recorder;
    recorder.replace(ldap_sasl_bind_s,
        [](LDAP*, const char*, const char*, berval*, LDAPControl**, LDAPControl**, berval**) -> int {
            throw std::bad_alloc();
        });
    int failures = 0;

    auto tested = ldap::testLdapConnectionAsync(settings(), [&] { ++failures; });

    EXPECT_THROW(tested.get(), std::bad_alloc);
    EXPECT_EQ(failures, 0);
}

TEST(AsyncConnectionTestCalls, KeepNeitherPasswordNorHandlerOnceItIsOver)
{
    CallRecorder recorder;
    recorder.fail(ldap_sasl_bind_s, LDAP_SUCCESS);
    Settings given = settings();
    given.adminPassword = QString::fromUtf8("a text that is not a literal");
    const auto captured = std::make_shared<int>();

    const auto tested = ldap::testLdapConnectionAsync(given, [captured] {});
    tested.wait();

    EXPECT_EQ(captured.use_count(), 1);
    EXPECT_TRUE(given.adminPassword.isDetached());
}

TEST(AsyncConnectionTestCalls, ThrowAtOnceWhenNoThreadCanBeHad)
{
    CallRecorder recorder;
    const NoThreads noThreads;

    EXPECT_THROW(ldap::testLdapConnectionAsync(settings(), [] {}), std::system_error);

    EXPECT_EQ(recorder.count("ldap_initialize"), 0U);
}

} // namespace

} // namespace tavo::test
