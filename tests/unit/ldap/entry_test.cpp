#include "support/qt_printers.h"
#include <ldap/utils.h>

#include <gtest/gtest.h>

namespace tavo::ldap {
namespace {

using test::operator""_s;

TEST(AttributeTest, IsEmptyWithoutValuesWhateverItsName)
{
    EXPECT_TRUE((Attribute{"mail"_s, {}}).empty());
    EXPECT_FALSE((Attribute{QString(), {QString()}}).empty());
}

TEST(AttributeTest, PrintsOneValueBareAndSeveralInBraces)
{
    EXPECT_EQ((Attribute{"mail"_s, {}}).toString(), "mail: none"_s);
    EXPECT_EQ((Attribute{"mail"_s, {"x1"_s}}).toString(), "mail: x1"_s);
    EXPECT_EQ((Attribute{"member"_s, {"x"_s, "y"_s}}).toString(), "member: { x, y }"_s);
    EXPECT_EQ((Attribute{"a%2"_s, {"%1"_s}}).toString(), "a%2: %1"_s);
}

TEST(SearchEntryTest, FindsAnAttributeByItsExactName)
{
    const SearchEntry entry{"cn=a"_s, {{"cn"_s, {"a"_s, "b"_s}}, {"cn"_s, {"c"_s}}}};
    EXPECT_EQ(entry.getAttribute("cn"_s).values, (std::vector<QString>{"a"_s, "b"_s}));
    EXPECT_EQ(entry.getAttributeFirstValue("cn"_s), "a"_s);
    for (const QString& other : {"CN"_s, "c"_s, "cnn"_s, QString()}) {
        EXPECT_TRUE(entry.getAttribute(other).empty());
        EXPECT_EQ(entry.getAttribute(other).name, other);
        EXPECT_TRUE(entry.getAttributeFirstValue(other).isNull());
    }
}

TEST(SearchEntryTest, LooksPastValuelessNamesakesOnlyForTheFirstValue)
{
    const SearchEntry entry{"cn=b"_s, {{"cn"_s, {}}, {"cn"_s, {"b"_s}}}};
    EXPECT_EQ(entry.getAttributeFirstValue("cn"_s), "b"_s);
    EXPECT_TRUE(entry.getAttribute("cn"_s).empty());
}

TEST(SearchEntryTest, PrintsItsAttributesInBracesAlsoASingleOne)
{
    EXPECT_EQ((SearchEntry{"cn=a,dc=b"_s, {{"cn"_s, {"a"_s}}}}).toString(), "cn=a,dc=b: { cn: a }"_s);
    EXPECT_EQ((SearchEntry{"cn=a,dc=b"_s, {{"cn"_s, {"a"_s}}, {"m"_s, {"x"_s, "y"_s}}}}).toString(),
        "cn=a,dc=b: { cn: a, m: { x, y } }"_s);
    EXPECT_EQ((SearchEntry{"cn=a,dc=b"_s, {}}).toString(), "cn=a,dc=b: none"_s);
    EXPECT_EQ((SearchEntry{}).toString(), ": none"_s);
}

} // namespace
} // namespace tavo::ldap
