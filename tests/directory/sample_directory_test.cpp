#include "support/sample_directory.h"
#include "support/slapd.h"

#include <gtest/gtest.h>
#include <ldap.h>

#include <memory>

namespace tavo::test {
namespace {

/// A slapd with the sample organisation, the same for all tests.
class SampleDirectoryTest : public ::testing::Test
{
protected:
    /// The number of entries that match; -1 when the search fails.
    int count(const std::string& filter) const
    {
        LDAP* ldap = nullptr;
        EXPECT_EQ(ldap_initialize(&ldap, m_slapd.url().c_str()), LDAP_SUCCESS);
        const int version = LDAP_VERSION3;
        ldap_set_option(ldap, LDAP_OPT_PROTOCOL_VERSION, &version);
        LDAPMessage* message = nullptr;
        const int result = ldap_search_ext_s(ldap, m_slapd.suffix().c_str(), LDAP_SCOPE_SUBTREE,
            filter.c_str(), nullptr, 0, nullptr, nullptr, nullptr, LDAP_NO_LIMIT, &message);
        const int entries = result == LDAP_SUCCESS ? ldap_count_entries(ldap, message) : -1;
        ldap_msgfree(message);
        ldap_unbind_ext(ldap, nullptr, nullptr);
        return entries;
    }

    const SampleDirectory m_sample = sampleDirectory();
    const Slapd m_slapd{
        {.ldif = m_sample.ldif, .checksSchema = false, .globalLines = {"sizelimit unlimited"}}};
};

TEST_F(SampleDirectoryTest, HoldsWhatItSays)
{
    EXPECT_GE(m_sample.people, 1000);
    EXPECT_GE(m_sample.groups, 40);
    EXPECT_LT(m_sample.peopleWithLogin, m_sample.people);
    EXPECT_LT(m_sample.peopleWithMail, m_sample.people);
    EXPECT_EQ(count("(objectClass=inetOrgPerson)"), m_sample.people);
    EXPECT_EQ(count("(&(objectClass=inetOrgPerson)(uid=*))"), m_sample.peopleWithLogin);
    EXPECT_EQ(count("(mail=*)"), m_sample.peopleWithMail);
    EXPECT_EQ(count("(objectClass=groupOfNames)"), m_sample.groups);
}

TEST_F(SampleDirectoryTest, ContainsTheAwkwardCases)
{
    EXPECT_EQ(count("(&(objectClass=groupOfNames)(!(member=*)))"), 1) << "a group without members";
    EXPECT_EQ(count("(cn=Sales, EMEA)"), 1) << "a comma in a name";
    EXPECT_GT(count("(sn=王)"), 0) << "other scripts";
    EXPECT_GT(count("(&(gecos=*)(!(displayName=*)))"), 0) << "a full name elsewhere";
    EXPECT_EQ(count("(&(cn=All staff)(member=cn=Jürgen Müller,ou=people,dc=example,dc=test))"), 1);
}

TEST(SampleDirectorySizesTest, FollowTheOptions)
{
    const SampleDirectory small = sampleDirectory({.suffix = "dc=small,dc=test", .people = 3, .groups = 31});
    EXPECT_EQ(small.people, 3);
    EXPECT_EQ(small.groups, 31);
    const Slapd slapd({.suffix = "dc=small,dc=test", .ldif = small.ldif, .checksSchema = false});
    // Names repeat with a number after all pairs were used once.
    const SampleDirectory big = sampleDirectory({.people = 3000});
    const Slapd bigSlapd({.ldif = big.ldif, .checksSchema = false});
}

} // namespace
} // namespace tavo::test
