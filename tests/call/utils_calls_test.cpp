#include "call_test.h"
#include <ldap/utils.h>

#include <gmock/gmock.h>

#include <cerrno>

namespace tavo::test {

namespace {

using ldap::BaseError;

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(DnFirstItemCalls, ParseAsVersionThreeAndRenderForPeople)
{
    CallRecorder recorder;

    EXPECT_EQ(ldap::dnFirstItem("cn=Jörg,dc=x"_s), "J\\C3\\B6rg"_s);

    EXPECT_EQ(recorder.only("ldap_str2dn").text("str"), "cn=J\xc3\xb6rg,dc=x");
    EXPECT_EQ(recorder.only("ldap_str2dn").number("flags"), LDAP_DN_FORMAT_LDAPV3);
    EXPECT_EQ(recorder.only("ldap_rdn2str").number("flags"), LDAP_DN_FORMAT_UFN);
    EXPECT_THAT(namesAmong(recorder, {"ldap_rdn2str", "ldap_memfree", "ldap_dnfree"}),
        ElementsAre("ldap_rdn2str", "ldap_memfree", "ldap_dnfree"));
}

TEST(DnFirstItemCalls, ReportErrnoOfTheParser)
{
    CallRecorder recorder;
    recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
    recorder.fail(ldap_str2dn, LDAP_NO_MEMORY, {.error = EXDEV});

    expectError(
        thrownBy<BaseError>([] { ldap::dnFirstItem("cn=a"_s); }), LDAP_NO_MEMORY, "ldap_str2dn()"_s, EXDEV);

    EXPECT_EQ(recorder.count("ldap_rdn2str"), 0U);
}

TEST(DnFirstItemCalls, ReportErrnoOfTheRenderingAndFreeWhatWasParsed)
{
    CallRecorder recorder;
    recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
    recorder.fail(ldap_rdn2str, LDAP_NO_MEMORY, {.error = EXDEV});

    expectError(
        thrownBy<BaseError>([] { ldap::dnFirstItem("cn=a"_s); }), LDAP_NO_MEMORY, "ldap_rdn2str()"_s, EXDEV);

    EXPECT_EQ(recorder.count("ldap_dnfree"), 1U);
    EXPECT_THAT(recorder.takeProblems(), IsEmpty());
}

TEST(LdapErrorString, IsEmptyWhereTheClientLibraryHasNone)
{
    CallRecorder recorder;
    recorder.fail(ldap_err2string, nullptr);

    EXPECT_EQ(BaseError::ldapErrorString(LDAP_BUSY), QString());
    EXPECT_EQ(BaseError(LDAP_BUSY, "bind"_s, 0).message(), "bind: "_s);
}

TEST(DebugOutput, IsTheOnlyOptionThatIsSetAndForAllHandles)
{
    CallRecorder recorder;
    recorder.fail(ldap_set_option, LDAP_OPT_SUCCESS);

    ldap::enableOpenldapDebugOutput(256);

    EXPECT_THAT(described(recorder.calls("ldap_set_option")),
        ElementsAre("ldap_set_option(invalue=256, ld=null, option=20481) = 0"));
}

TEST(DebugOutput, ReportsErrnoWhenItCannotBeSet)
{
    CallRecorder recorder;
    recorder.fail(ldap_set_option, LDAP_OPT_ERROR, {.error = EXDEV});

    expectError(thrownBy<BaseError>([] { ldap::enableOpenldapDebugOutput(1); }), LDAP_OPT_ERROR,
        "enable LDAP debug output"_s, EXDEV);
}

} // namespace

} // namespace tavo::test
