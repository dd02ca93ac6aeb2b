#include "support/qt_printers.h"
#include <ldap/utils.h>

#include <gtest/gtest.h>
#include <ldap.h>

namespace tavo::ldap {
namespace {

using test::operator""_s;

TEST(DnFirstItemTest, GivesTheValueOfTheFirstRelativeName)
{
    EXPECT_EQ(dnFirstItem("cn=John Smith,ou=People,dc=corp"_s), "John Smith"_s);
    EXPECT_EQ(dnFirstItem("dc=corp"_s), "corp"_s);
}

TEST(DnFirstItemTest, JoinsSeveralValuesAsTheClientLibraryDoes)
{
    EXPECT_EQ(dnFirstItem("cn=John+uid=jd,dc=corp"_s), "John + jd"_s);
}

TEST(DnFirstItemTest, EscapesWhatIsNotPlainAscii)
{
    EXPECT_EQ(dnFirstItem("cn=Smith\\, John,dc=corp"_s), "Smith\\2C John"_s);
    EXPECT_EQ(dnFirstItem("cn=Müller,dc=corp"_s), "M\\C3\\BCller"_s);
}

TEST(DnFirstItemTest, ThrowsCodeZeroForAnEmptyDn)
{
    try {
        dnFirstItem(QString());
        FAIL() << "nothing thrown";
    } catch (const BaseError& error) {
        EXPECT_EQ(error.ldapCode, 0);
        EXPECT_EQ(error.context, "ldap_str2dn()"_s);
    }
}

TEST(DnFirstItemTest, ThrowsTheParsersCodeForAMalformedDn)
{
    for (const QString& dn : {"nonsense"_s, "cn=a,,dc=b"_s, "=a"_s}) {
        try {
            dnFirstItem(dn);
            FAIL() << dn.toStdString();
        } catch (const BaseError& error) {
            EXPECT_EQ(error.ldapCode, LDAP_DECODING_ERROR) << dn.toStdString();
            EXPECT_EQ(error.context, "ldap_str2dn()"_s);
        }
    }
}

TEST(IsLdapsUrlTest, LooksAtTheScheme)
{
    EXPECT_TRUE(isLdapsUrl(utils::Url("ldaps://host"_s)));
    EXPECT_TRUE(isLdapsUrl(utils::Url("LDAPS://host:636"_s)));
    EXPECT_FALSE(isLdapsUrl(utils::Url("ldap://host:636"_s)));
    EXPECT_FALSE(isLdapsUrl(utils::Url()));
}

} // namespace
} // namespace tavo::ldap
