// Many fetches of one manager at once, of more than a few pages each.
#include "directory_test.h"

#include "support/sanitized.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <string>

namespace tavo::ldap {
namespace {

using test::Deliveries;
using test::qt;
using test::Slapd;
using test::urlOf;

constexpr int kUsers = test::sanitized ? 1'000 : 10'000;
constexpr int kGroups = test::sanitized ? 400 : 2'000;

std::string peopleAndGroups()
{
    std::string ldif =
        test::people(kUsers) + "dn: ou=groups,dc=example,dc=test\nobjectClass: organizationalUnit\n\n";
    for (int i = 0; i < kGroups; ++i) {
        const std::string name = "g" + std::to_string(i);
        ldif += "dn: cn=" + name + ",ou=groups,dc=example,dc=test\nobjectClass: groupOfNames\ncn: " + name +
                "\nmember: uid=u" + std::to_string(i) + ",ou=people,dc=example,dc=test\n\n";
    }
    return ldif;
}

/// How often each test does what it does: $TAVO_TEST_REPEATS, for more than an everyday run.
int repeats()
{
    const char* const text = std::getenv("TAVO_TEST_REPEATS");
    return text != nullptr ? std::atoi(text) : 2;
}

class ConcurrentFetchesTest : public ::testing::Test
{
protected:
    ConcurrentFetchesTest()
    {
        Settings settings;
        settings.uri = urlOf(m_slapd.url());
        settings.searchPageSize = 100;
        m_manager = createManagerOrThrow(settings);
    }

    /// Fetches users and groups by so many fetches each, all started at once.
    template <std::size_t Pairs>
    void fetchAtOnce()
    {
        std::array<Deliveries<User>, Pairs> users;
        std::array<Deliveries<Group>, Pairs> groups;
        for (std::size_t i = 0; i < Pairs; ++i) {
            m_manager->fetchUsersAsync(users[i].handler(), {qt("dc=example,dc=test"), {}});
            m_manager->fetchGroupsAsync(groups[i].handler(), {qt("dc=example,dc=test"), {}});
        }
        for (std::size_t i = 0; i < Pairs; ++i) {
            EXPECT_EQ(users[i].waitForEnd(), Result::ok);
            EXPECT_EQ(groups[i].waitForEnd(), Result::ok);
            EXPECT_EQ(users[i].records().size(), static_cast<std::size_t>(kUsers));
            EXPECT_EQ(groups[i].records().size(), static_cast<std::size_t>(kGroups));
            EXPECT_EQ(users[i].finals(), 1);
            EXPECT_EQ(groups[i].finals(), 1);
        }
    }

    const Slapd m_slapd{{.ldif = peopleAndGroups(), .databaseLines = {"limits * size=unlimited"}}};
    std::unique_ptr<Manager> m_manager;
};

TEST_F(ConcurrentFetchesTest, areCompleteWhenThereAreTwo)
{
    RecordProperty("repeats", repeats());
    for (int i = 0; i < repeats() && !HasFailure(); ++i) {
        fetchAtOnce<1>();
    }
}

TEST_F(ConcurrentFetchesTest, areCompleteWhenThereAreFour)
{
    RecordProperty("repeats", repeats());
    for (int i = 0; i < repeats() && !HasFailure(); ++i) {
        fetchAtOnce<2>();
    }
}

} // namespace
} // namespace tavo::ldap
