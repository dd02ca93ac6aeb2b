// A directory of another make: 389 Directory Server, which speaks LDAP as OpenLDAP does.
#include "directory_test.h"
#include "support/ds389.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <memory>

namespace tavo::ldap {
namespace {

using test::operator""_s;
using test::Deliveries;
using test::Ds389;
using test::qt;
using test::urlOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::SizeIs;

constexpr int kPeople = 45;
constexpr int kGroups = 12;

std::string groups()
{
    std::string ldif;
    for (int i = 0; i < kGroups; ++i) {
        ldif += "dn: cn=g" + std::to_string(i) +
                ",dc=example,dc=test\nobjectClass: groupOfNames\n"
                "member: uid=u0,ou=people,dc=example,dc=test\nmember: uid=u" +
                std::to_string(i + 1) + ",ou=people,dc=example,dc=test\n\n";
    }
    return ldif;
}

class Ds389Test : public ::testing::Test
{
protected:
    /// One server, slow to start, serves all tests of a process. Not set up for the suite: its tests would
    /// count as skipped where that fails.
    Ds389Test()
    {
        if (!server)
            server = std::make_unique<Ds389>(test::people(kPeople) + groups());
    }

    static void TearDownTestSuite() { server.reset(); }

    void TearDown() override
    {
        if (HasFailure())
            std::cerr << "What 389 Directory Server said:\n" << server->log();
    }

    static Settings settings()
    {
        Settings settings;
        settings.uri = urlOf(server->url());
        settings.adminDn = qt(Ds389::rootDn);
        settings.adminPassword = qt(Ds389::rootPassword);
        settings.searchPageSize = 10;
        return settings;
    }

    static inline std::unique_ptr<Ds389> server;
};

TEST_F(Ds389Test, IsDetectedAsOpenLdap)
{
    const VendorDefaults defaults = Session(urlOf(server->url()), false, false).detectLdapVendor();
    EXPECT_EQ(defaults.loginAttribute, "uid"_s);
    EXPECT_EQ(defaults.groupObjectClass, "groupOfNames"_s);
    EXPECT_EQ(defaults.memberAttribute, QByteArray("member"));
    EXPECT_TRUE(defaults.userFilter.isEmpty());
}

TEST_F(Ds389Test, IsReadPageByPage)
{
    EXPECT_TRUE(testLdapConnection(settings()));
    const auto manager = createManagerOrThrow(settings());
    Deliveries<User> users;
    manager->fetchUsersAsync(users.handler(), {qt(Ds389::suffix), "(uid=*)"_s});
    Deliveries<Group> groups;
    manager->fetchGroupsAsync(groups.handler(), {qt(Ds389::suffix), {}});
    EXPECT_EQ(users.waitForEnd(), Result::ok);
    EXPECT_EQ(groups.waitForEnd(), Result::ok);
    EXPECT_THAT(users.records(), SizeIs(kPeople));
    EXPECT_THAT(users.all(), SizeIs(kPeople / 10 + 1));
    EXPECT_THAT(groups.records(), SizeIs(kGroups));
    EXPECT_THAT(groups.records(), Each(Field(&Group::members, SizeIs(2))));
    EXPECT_THAT(groups.results(), ElementsAre(Result::moreResults, Result::ok));
}

TEST_F(Ds389Test, RefusesAWrongPassword)
{
    EXPECT_THROW(Session(urlOf(server->url()), false, false).bind(qt(Ds389::rootDn), "wrong"_s),
        InvalidCredentialsError);
}

} // namespace
} // namespace tavo::ldap
