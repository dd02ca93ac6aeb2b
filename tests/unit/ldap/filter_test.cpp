#include "support/qt_printers.h"
#include <ldap/search_params.h>

#include <gtest/gtest.h>
#include <ldap.h>

namespace tavo::ldap {
namespace {

using test::operator""_s;

static_assert(static_cast<int>(SearchScope::base) == LDAP_SCOPE_BASE);
static_assert(static_cast<int>(SearchScope::oneLevel) == LDAP_SCOPE_ONELEVEL);
static_assert(static_cast<int>(SearchScope::subtree) == LDAP_SCOPE_SUBTREE);

TEST(FilterTest, IsMadeOfANameAndAValueWithoutParentheses)
{
    EXPECT_EQ(Filter("cn"_s, "john"_s).text, "cn=john"_s);
    EXPECT_EQ(Filter(QString(), QString()).text, "="_s);
}

TEST(FilterTest, EscapesNothing)
{
    EXPECT_EQ(Filter("cn"_s, "*"_s).text, "cn=*"_s);
    EXPECT_EQ(Filter("%2"_s, "a)(b=%1"_s).text, "%2=a)(b=%1"_s);
}

TEST(FilterTest, NestsInParenthesesUnlessItBeginsWithOne)
{
    EXPECT_EQ(Filter("cn"_s, "john"_s).toCompoundString(), "(cn=john)"_s);
    EXPECT_EQ(Filter(QString(), QString()).toCompoundString(), "(=)"_s);
    EXPECT_EQ(Filter().toCompoundString(), "()"_s);
    EXPECT_EQ(Filter("(a=1"_s).toCompoundString(), "(a=1"_s);
    EXPECT_EQ(Filter("a=1)(b=2"_s).toCompoundString(), "(a=1)(b=2)"_s);
    EXPECT_EQ(Filter(" (a=1)"_s).toCompoundString(), "( (a=1))"_s);
}

TEST(FilterTest, JoinsTwoFiltersTheLeftOneFirst)
{
    Filter left("(objectClass=user)"_s);
    EXPECT_EQ((left & Filter("cn=a"_s)).text, "(&(objectClass=user)(cn=a))"_s);
    EXPECT_EQ(left.text, "(objectClass=user)"_s);
}

TEST(FilterTest, DoesNotFlattenWhatItJoins)
{
    Filter a("a"_s);
    EXPECT_EQ(((a & Filter("b"_s)) & Filter("c"_s)).text, "(&(&(a)(b))(c))"_s);
}

TEST(FilterTest, LeavesTheOtherSideAloneWhenOneIsEmpty)
{
    Filter empty;
    Filter given(" cn=a "_s);
    EXPECT_EQ((empty & given).text, " cn=a "_s);
    EXPECT_EQ((given & empty).text, " cn=a "_s);
    EXPECT_TRUE((empty & empty).text.isEmpty());
}

} // namespace
} // namespace tavo::ldap
