#include "support/qt_printers.h"
#include <ldap/user.h>

#include <gtest/gtest.h>
#include <ldap.h>

namespace tavo::ldap {
namespace {

using test::operator""_s;

const QByteArray kLogin("uid");

User userOf(const QString& dn, std::vector<Attribute> attributes, const QByteArray& loginAttribute = kLogin)
{
    return User::fromSearchEntry({dn, std::move(attributes)}, loginAttribute);
}

TEST(UserTest, PrefersTheDisplayNameTrimmed)
{
    const User user = userOf("uid=a"_s, {{"displayName"_s, {"  Ann Lee "_s}}, {"gecos"_s, {"A"_s}}});
    EXPECT_EQ(user.fullName, "Ann Lee"_s);
    EXPECT_EQ(user.dn, "uid=a"_s);
}

TEST(UserTest, TakesTheGecosWhenTheDisplayNameIsBlank)
{
    EXPECT_EQ(userOf("uid=a"_s, {{"displayName"_s, {"  "_s}}, {"gecos"_s, {"Bob"_s}}}).fullName, "Bob"_s);
    EXPECT_EQ(userOf("uid=a"_s, {{"gecos"_s, {"Bob "_s}}, {"displayName"_s, {}}}).fullName, "Bob"_s);
}

TEST(UserTest, TakesTheFirstNameOfTheDnWhenThereIsNoOther)
{
    EXPECT_EQ(userOf("uid=jdoe,ou=People,dc=corp"_s, {}).fullName, "jdoe"_s);
}

TEST(UserTest, NeedsNoReadableDnWhenThereIsADisplayName)
{
    EXPECT_EQ(userOf("nonsense"_s, {{"displayName"_s, {"Ann"_s}}}).fullName, "Ann"_s);
    EXPECT_THROW(userOf("nonsense"_s, {}), BaseError);
}

TEST(UserTest, TrimsAndLowersTheAddressButNotTheLogin)
{
    const User user = userOf("uid=a"_s, {{"mail"_s, {" ANN.LEE "_s, "second"_s}}, {"uid"_s, {" JDoe "_s}}});
    EXPECT_EQ(user.email, "ann.lee"_s);
    EXPECT_EQ(user.login, " JDoe "_s);
}

TEST(UserTest, HasNoLoginWithoutALoginAttribute)
{
    EXPECT_TRUE(userOf("uid=a"_s, {{QString(), {"x"_s}}, {"uid"_s, {"y"_s}}}, QByteArray()).login.isEmpty());
}

TEST(UserTest, LooksAttributesUpByExactSpelling)
{
    const User user =
        userOf("uid=a"_s, {{"Mail"_s, {"x"_s}}, {"DisplayName"_s, {"y"_s}}, {"UID"_s, {"z"_s}}});
    EXPECT_TRUE(user.email.isEmpty());
    EXPECT_EQ(user.fullName, "a"_s);
    EXPECT_TRUE(user.login.isEmpty());
}

TEST(UserTest, AsksForTheSameThreeAttributesEachTime)
{
    const std::vector<QByteArray> expected{"displayName", "gecos", "mail"};
    EXPECT_EQ(User::attributes(), expected);
    EXPECT_EQ(&User::attributes(), &User::attributes());
}

TEST(UserTest, WritesItsFourFieldsInOrder)
{
    EXPECT_EQ(User().toString(), R"({"dn":"","login":"","fullName":"","email":""})");
    EXPECT_EQ((User{"cn=\"a\""_s, "l"_s, "Żółć"_s, "m"_s}).toString(),
        R"({"dn":"cn=\"a\"","login":"l","fullName":"Żółć","email":"m"})");
}

TEST(GroupTest, WritesItsFieldsInOrder)
{
    EXPECT_EQ(Group().toString(), R"({"dn":"","name":"","members":[]})");
    EXPECT_EQ((Group{"cn=g"_s, "g"_s, {"a"_s, "b"_s, "a"_s}}).toString(),
        R"({"dn":"cn=g","name":"g","members":["a","b","a"]})");
}

} // namespace
} // namespace tavo::ldap
