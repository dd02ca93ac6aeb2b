#include "support/qt_printers.h"
#include <ldap/settings.h>
#include <tavo_reflect/json.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tavo::ldap {
namespace {

using test::operator""_s;
using ::testing::HasSubstr;
using ::testing::Not;

Settings example()
{
    Settings settings;
    settings.uri = utils::Url("ldaps://dc1.example:636"_s);
    settings.adminDn = "cn=admin"_s;
    settings.adminPassword = "s\"ecret"_s;
    settings.memberAttribute = "member"_s;
    settings.searchTimeout = std::chrono::seconds(20);
    settings.responseTimeout = std::chrono::seconds(10);
    settings.startTls = true;
    settings.searchPageSize = 100;
    return settings;
}

TEST(SettingsTest, WritesItsMembersInOrderAndLeavesAbsentOnesOut)
{
    EXPECT_EQ(example().toString(),
        R"({"uri":"ldaps://dc1.example:636","adminDn":"cn=admin","adminPassword":"s\"ecret",)"
        R"("memberAttribute":"member","searchTimeout":20,"responseTimeout":10,"startTls":true,)"
        R"("ignoreCertificateErrors":false,"searchPageSize":100})");
}

TEST(SettingsTest, WritesEightMembersWithoutMappingAndElevenWithIt)
{
    Settings settings = example();
    settings.memberAttribute.reset();
    const auto members = [](const Settings& of) {
        const std::string json = of.toString();
        return std::count(json.begin(), json.end(), ':') - std::count(json.begin(), json.end(), '/');
    };
    // The URL has two colons of its own, and two slashes.
    EXPECT_EQ(members(settings), 8);
    settings.loginAttribute = "uid"_s;
    settings.groupObjectClass = "group"_s;
    settings.memberAttribute = "member"_s;
    EXPECT_EQ(members(settings), 11);
    EXPECT_THAT(settings.toString(),
        HasSubstr(R"("loginAttribute":"uid","groupObjectClass":"group","memberAttribute":"member")"));
}

TEST(SettingsTest, DistinguishesAnEmptyOptionalFromAnAbsentOne)
{
    Settings settings = example();
    EXPECT_THAT(settings.toString(), Not(HasSubstr("loginAttribute")));
    settings.loginAttribute = QString();
    EXPECT_THAT(settings.toString(), HasSubstr(R"("loginAttribute":"")"));
}

TEST(SettingsTest, ShowsThePasswordInClear)
{
    EXPECT_THAT(example().toString(), HasSubstr(R"("adminPassword":"s\"ecret")"));
}

TEST(SettingsTest, KeepsOutOfRangeNumbers)
{
    Settings settings = example();
    settings.searchTimeout = std::chrono::seconds(-1);
    settings.responseTimeout = std::chrono::seconds(0);
    settings.searchPageSize = -7;
    EXPECT_THAT(settings.toString(), HasSubstr(R"("searchTimeout":-1,"responseTimeout":0)"));
    EXPECT_THAT(settings.toString(), HasSubstr(R"("searchPageSize":-7)"));
}

TEST(SettingsTest, IsExactlyWhatTheSerializerWrites)
{
    EXPECT_EQ(example().toString(), reflect::json::serialize(example()));
}

} // namespace
} // namespace tavo::ldap
