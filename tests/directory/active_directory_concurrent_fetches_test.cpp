// Many fetches of one manager at once from a real Active Directory domain, a hundred pages of users each.
#include "concurrent_fetches.h"
#include "support/samba.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace tavo::ldap {
namespace {

using test::qt;
using test::Samba;
using test::urlOf;

const std::string kLoad = "OU=Load,DC=ad,DC=test";

/// Making a domain of 12,000 entries takes most of a minute, so that is only done when it is asked for.
int users()
{
    static const int count = test::numberFromEnvironment("TAVO_TEST_AD_USERS", 1'000);
    return count;
}

int groups() { return users() / 5; }

int pageSize() { return users() / 100; }

std::string dnOf(const std::string& name) { return "CN=" + name + "," + kLoad; }

std::string usersAndGroups()
{
    std::string ldif = "dn: " + kLoad + "\nobjectClass: organizationalUnit\n\n";
    for (int i = 0; i < users(); ++i) {
        const std::string login = "u" + std::to_string(i);
        // A normal account that needs no password.
        ldif += "dn: " + dnOf(login) + "\nobjectClass: user\nsAMAccountName: " + login + "\nmail: " + login +
                "@ad.test\nuserAccountControl: 544\n\n";
    }
    for (int i = 0; i < groups(); ++i) {
        const std::string number = std::to_string(i);
        ldif += "dn: " + dnOf("g" + number) + "\nobjectClass: group\nsAMAccountName: g" + number +
                "\nmember: " + dnOf("u" + number) + "\n\n";
    }
    return ldif;
}

class ActiveDirectoryConcurrentFetchesTest : public ::testing::Test
{
protected:
    /// One domain serves all tests of a process. Not set up for the suite: its tests would count as skipped
    /// where that fails.
    ActiveDirectoryConcurrentFetchesTest()
    {
        if (!samba) {
            samba = std::make_unique<Samba>(test::SambaOptions{.ldif = usersAndGroups()});
        }
        Settings settings;
        settings.uri = urlOf(samba->ldapsUrl());
        settings.adminDn = qt(Samba::administrator);
        settings.adminPassword = qt(Samba::password);
        settings.ignoreCertificateErrors = true;
        settings.searchPageSize = pageSize();
        m_manager = createManagerOrThrow(settings);
    }

    static void TearDownTestSuite() { samba.reset(); }

    template <std::size_t Pairs>
    void fetchAtOnce()
    {
        RecordProperty("users", users());
        const test::Population population{
            static_cast<std::size_t>(users()), static_cast<std::size_t>(groups())};
        test::fetchAtOnce<Pairs>(*m_manager, {qt(kLoad), {}}, population);
    }

    std::unique_ptr<Manager> m_manager;
    static inline std::unique_ptr<Samba> samba;
};

TEST_F(ActiveDirectoryConcurrentFetchesTest, AreCompleteWhenThereAreTwo) { fetchAtOnce<1>(); }

TEST_F(ActiveDirectoryConcurrentFetchesTest, AreCompleteWhenThereAreFour) { fetchAtOnce<2>(); }

} // namespace
} // namespace tavo::ldap
