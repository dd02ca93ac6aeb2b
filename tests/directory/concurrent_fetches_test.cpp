// Many fetches of one manager at once, of more than a few pages each.
#include "concurrent_fetches.h"
#include "support/sanitized.h"

#include <gtest/gtest.h>

#include <string>

namespace tavo::ldap {
namespace {

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

    template <std::size_t Pairs>
    void fetchAtOnce()
    {
        test::fetchAtOnce<Pairs>(*m_manager, {qt("dc=example,dc=test"), {}}, {kUsers, kGroups});
    }

    const Slapd m_slapd{{.ldif = peopleAndGroups(), .databaseLines = {"limits * size=unlimited"}}};
    std::unique_ptr<Manager> m_manager;
};

TEST_F(ConcurrentFetchesTest, AreCompleteWhenThereAreTwo) { fetchAtOnce<1>(); }

TEST_F(ConcurrentFetchesTest, AreCompleteWhenThereAreFour) { fetchAtOnce<2>(); }

} // namespace
} // namespace tavo::ldap
