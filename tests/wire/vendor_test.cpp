#include "scripted_session_test.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tavo::test {

namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

class Vendor : public ScriptedSessionTest
{
protected:
    static Entry rootDse(const std::string& value) { return entry("").attr("forestFunctionality", value); }

    /// What the session finds; the root DSE was asked for without an error.
    ldap::VendorDefaults detected()
    {
        const LogCapture log;
        const auto defaults = session.detectLdapVendor();
        EXPECT_THAT(log.texts(), Not(Contains(HasSubstr("Detect LDAP vendor error"))));
        return defaults;
    }

    void expectOpenLdap()
    {
        const auto defaults = detected();
        EXPECT_EQ(defaults.loginAttribute, "uid"_s);
        EXPECT_EQ(defaults.groupObjectClass, "groupOfNames"_s);
        EXPECT_EQ(defaults.memberAttribute, QByteArray("member"));
        EXPECT_EQ(defaults.userFilter, QString());
    }

    void expectActiveDirectory()
    {
        const auto defaults = detected();
        EXPECT_EQ(defaults.loginAttribute, "sAMAccountName"_s);
        EXPECT_EQ(defaults.groupObjectClass, "group"_s);
        EXPECT_EQ(defaults.memberAttribute, QByteArray("member"));
        EXPECT_EQ(defaults.userFilter,
            "(&(objectCategory=User)(!(userAccountControl:1.2.840.113556.1.4.803:=2)))"_s);
    }
};

TEST_F(Vendor, IsActiveDirectoryForAForestOfAnyLevel)
{
    for (const char* level : {"7", "0", "no number", " "}) {
        server.expectSearch()
            .base("")
            .scope(0)
            .filter("(objectclass=*)")
            .attributes({})
            .noControls()
            .answer(rootDse(level), done());
        expectActiveDirectory();
    }
}

TEST_F(Vendor, IsOpenLdapForAForestWhoseFirstLevelIsEmpty)
{
    server.expectSearch().answer(rootDse(""), done());
    expectOpenLdap();
    server.expectSearch().answer(entry("").attr("forestFunctionality", {"", "7"}), done());
    expectOpenLdap();
    server.expectSearch().answer(entry("").attr("forestFunctionality", std::vector<Bytes>()), done());
    expectOpenLdap();
}

TEST_F(Vendor, IsOpenLdapForAnAttributeOfAnotherSpelling)
{
    server.expectSearch().answer(entry("").attr("forestfunctionality", "7").attr("vendorName", "x"), done());
    expectOpenLdap();
}

TEST_F(Vendor, IsOpenLdapForASearchWithoutEntries)
{
    server.expectSearch().answer(done());
    expectOpenLdap();
}

TEST_F(Vendor, IsDecidedByTheFirstEntryThatTellsItsForest)
{
    server.expectSearch().answer(entry("cn=a"), rootDse(""), rootDse("7"), entry("cn=b"), done());
    expectActiveDirectory();
}

TEST_F(Vendor, IsOpenLdapWhenTheServerRefusesTheSearch)
{
    const LogCapture log;
    server.expectSearch().answer(rootDse("7"), done(50).diagnostic("bind first"));

    EXPECT_EQ(session.detectLdapVendor().loginAttribute, "uid"_s);

    EXPECT_THAT(log.texts(log::Level::debug),
        Contains("Detect LDAP vendor error: ldap_search_ext_s: Insufficient access."));
}

} // namespace

} // namespace tavo::test
