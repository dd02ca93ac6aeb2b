// What the settings of an OpenLDAP server do to searches and fetches.
#include "directory_test.h"
#include "support/sanitized.h"
#include "support/scripted_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

namespace tavo::ldap {
namespace {

using test::operator""_s;
using test::Deliveries;
using test::Entries;
using test::peopleSearch;
using test::qt;
using test::Slapd;
using test::urlOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int kPeople = 900;

/// The library's own configuration, which it reads on first use, in whichever test that is.
class Configuration
{
public:
    Configuration()
    {
        m_directory.write("tavo_ldap.ini", "logResponseReferences = true\n");
        setenv("TAVO_CONFIG_DIR", m_directory.path().c_str(), 1);
    }

private:
    test::TemporaryDirectory m_directory;
};
const Configuration configuration;

std::unique_ptr<Session> anonymousSession(const Slapd& slapd)
{
    return std::make_unique<Session>(urlOf(slapd.url()), false, false);
}

/// The code that a blocking search without pages ends with; 0 when it gives all.
int unpagedCode(const Session& session, const SearchParams& params)
{
    try {
        session.simpleSearch(params);
        return 0;
    } catch (const BaseError& error) {
        return error.ldapCode;
    }
}

/// What a handler sees of a paged search: how many full pages, and how it ends, with how many entries.
struct PagedOutcome
{
    int pageSize;
    int fullPages;
    Result result;
    std::size_t lastEntries = 0;

    bool operator==(const PagedOutcome&) const = default;
};

void PrintTo(const PagedOutcome& outcome, std::ostream* out)
{
    *out << "pages of " << outcome.pageSize << ": " << outcome.fullPages << " full ones, then \""
         << toString(outcome.result) << "\" with " << outcome.lastEntries << " entries";
}

template <class Record>
PagedOutcome outcomeOf(int pageSize, Deliveries<Record>& deliveries)
{
    const Result result = deliveries.waitForEnd();
    const auto all = deliveries.all();
    return {pageSize, static_cast<int>(all.size()) - 1, result, all.back().records.size()};
}

PagedOutcome outcomeOfSearch(const Slapd& slapd, int pageSize)
{
    const auto session = anonymousSession(slapd);
    Entries entries;
    session->asyncSearch(peopleSearch(), entries.handler(), pageSize);
    return outcomeOf(pageSize, entries);
}

PagedOutcome outcomeOfFetch(const Slapd& slapd, int pageSize)
{
    Settings settings;
    settings.uri = urlOf(slapd.url());
    settings.searchPageSize = pageSize;
    const auto manager = createManagerOrThrow(settings);
    Deliveries<User> users;
    manager->fetchUsersAsync(users.handler(), {peopleSearch().base, peopleSearch().filter});
    return outcomeOf(pageSize, users);
}

struct Limits
{
    std::string name;
    /// The line in slapd.conf; none when empty.
    std::string line;
    int unpagedCode;
    std::vector<PagedOutcome> paged;
};

void PrintTo(const Limits& limits, std::ostream* out) { *out << limits.line; }

class LimitsTest : public ::testing::TestWithParam<Limits>
{};

TEST_P(LimitsTest, DecideHowManyEntriesASearchReturns)
{
    const Limits& limits = GetParam();
    const Slapd slapd({.ldif = test::people(kPeople), .databaseLines = {limits.line}});
    EXPECT_EQ(unpagedCode(*anonymousSession(slapd), peopleSearch()), limits.unpagedCode);
    for (const PagedOutcome& expected : limits.paged) {
        const test::LogCapture log;
        EXPECT_EQ(outcomeOfSearch(slapd, expected.pageSize), expected);
        EXPECT_EQ(outcomeOfFetch(slapd, expected.pageSize), expected) << "by a manager";
        if (expected.result == Result::connectError) {
            EXPECT_TRUE(log.contains("Administrative limit exceeded"));
        }
    }
}

/// A search that was cut says so to a caller who waits, too, and gives nothing.
TEST_P(LimitsTest, GiveABlockingSearchAllEntriesOrNone)
{
    const Limits& limits = GetParam();
    const Slapd slapd({.ldif = test::people(kPeople), .databaseLines = {limits.line}});
    for (const PagedOutcome& expected : limits.paged) {
        const auto found = anonymousSession(slapd)->search(peopleSearch(), expected.pageSize);
        if (expected.result == Result::ok)
            EXPECT_THAT(std::get<1>(found), SizeIs(kPeople));
        else
            EXPECT_EQ(std::get<0>(found), expected.result);
    }
}

constexpr auto cut = Result::sizeLimitExceeded;
constexpr auto refused = Result::connectError;

INSTANTIATE_TEST_SUITE_P(OpenLdap, LimitsTest,
    ::testing::Values(Limits{"default", "", 4, {{10, 50, cut}, {100, 5, cut}, {600, 0, cut}, {1000, 0, cut}}},
        Limits{
            "hard", "limits * size.soft=20 size.hard=60", 4, {{10, 6, cut}, {100, 0, cut}, {1000, 0, cut}}},
        Limits{"pageSize", "limits * size=20 size.pr=50 size.prtotal=unlimited", 4,
            {{10, 89, Result::ok, 10}, {50, 17, Result::ok, 50}, {100, 0, refused}, {1000, 0, refused}}},
        Limits{"total", "limits * size.soft=20 size.hard=60 size.pr=unlimited size.prtotal=200", 4,
            {{10, 20, cut}, {100, 2, cut}, {1000, 0, cut}}},
        Limits{"noPages", "limits * size=unlimited size.prtotal=disabled", 0,
            {{10, 0, refused}, {100, 0, refused}, {1000, 0, refused}}},
        Limits{"unchecked", "limits * size.unchecked=100", 11,
            {{10, 0, refused}, {100, 0, refused}, {1000, 0, refused}}},
        Limits{"pagesOnly", "limits * size.soft=500 size.hard=500 size.prtotal=unlimited", 4,
            {{10, 89, Result::ok, 10}, {100, 8, Result::ok, 100}, {1000, 0, Result::ok, kPeople}}},
        Limits{"unlimited", "limits * size=unlimited", 0,
            {{10, 89, Result::ok, 10}, {100, 8, Result::ok, 100}, {1000, 0, Result::ok, kPeople}}}),
    [](const ::testing::TestParamInfo<Limits>& limits) { return limits.param.name; });

TEST(OpenLdapTest, ExemptsTheAdministratorFromAllLimits)
{
    const Slapd slapd({.ldif = test::people(kPeople), .databaseLines = {"limits * size=20"}});
    const auto session = anonymousSession(slapd);
    EXPECT_EQ(unpagedCode(*session, peopleSearch()), 4);
    session->bind(qt(slapd.rootDn()), qt(slapd.rootPassword()));
    EXPECT_EQ(unpagedCode(*session, peopleSearch()), 0);
}

/// A server with an entry that refers to another server, and that other server.
class ReferralTest : public ::testing::Test
{
protected:
    ReferralTest()
        : m_slapd({.ldif = test::people(3) +
                           "dn: ou=elsewhere,ou=people,dc=example,dc=test\nobjectClass: referral\n"
                           "objectClass: extensibleObject\nou: elsewhere\nref: " +
                           m_other.url() + "/ou=there,dc=example,dc=test\n\n",
              .globalLines = {"referral " + m_other.url()}})
    {}

    test::ScriptedServer m_other;
    Slapd m_slapd;
};

TEST_F(ReferralTest, AmongTheResultsIsNotFollowed)
{
    auto params = peopleSearch();
    params.scope = SearchScope::subtree;
    const auto session = anonymousSession(m_slapd);
    EXPECT_THAT(session->simpleSearch(params), SizeIs(3));
    EXPECT_THAT(std::get<1>(session->search(params, 2)), SizeIs(3));
    EXPECT_EQ(m_other.connections(), 0U);
}

TEST_F(ReferralTest, IsLoggedByASearchInPages)
{
    const test::LogCapture log;
    auto params = peopleSearch();
    params.scope = SearchScope::subtree;
    anonymousSession(m_slapd)->search(params, 2);
    EXPECT_TRUE(log.contains("Not chasing reference received from server: " + m_other.url() +
                             "/ou=there,dc=example,dc=test??sub"));
}

TEST_F(ReferralTest, InsteadOfAResultIsAFailure)
{
    const auto session = anonymousSession(m_slapd);
    for (const char* const base : {"ou=elsewhere,ou=people,dc=example,dc=test", "dc=other,dc=test"}) {
        const SearchParams params{qt(base), QString(), {}, SearchScope::subtree};
        EXPECT_EQ(unpagedCode(*session, params), 10) << base;
        EXPECT_EQ(std::get<Result>(session->search(params, 10)), Result::connectError) << base;
    }
    EXPECT_EQ(m_other.connections(), 0U);
}

TEST(OpenLdapTest, FailsWithTheCodeOfAServerInTrouble)
{
    const Slapd slapd({.ldif = test::people(1),
        .modules = {"retcode"},
        .databaseLines = {"overlay retcode", "retcode-parent \"ou=trouble,dc=example,dc=test\"",
            "retcode-item \"cn=busy\" 51", "retcode-item \"cn=unavailable\" 52",
            "retcode-item \"cn=other\" 80", "retcode-item \"cn=time\" 3"}});
    const auto session = anonymousSession(slapd);
    for (const auto& [name, code] :
        {std::pair{"busy", 51}, {"unavailable", 52}, {"other", 80}, {"time", 3}}) {
        const SearchParams params{qt(std::string("cn=") + name + ",ou=trouble,dc=example,dc=test"), QString(),
            {}, SearchScope::base};
        EXPECT_EQ(unpagedCode(*session, params), code);
        EXPECT_EQ(std::get<Result>(session->search(params, 10)), Result::connectError) << name;
    }
    EXPECT_THAT(session->simpleSearch(peopleSearch()), SizeIs(1)) << "the connection is still good";
}

TEST(OpenLdapTest, ShowsOnlyWhatTheReaderMaySee)
{
    const Slapd slapd(
        {.ldif = test::people(2) + "dn: ou=board,dc=example,dc=test\nobjectClass: organizationalUnit\n\n"
                                   "dn: uid=boss,ou=board,dc=example,dc=test\nobjectClass: inetOrgPerson\n"
                                   "uid: boss\ncn: Boss\nsn: Boss\n\n"
                                   "dn: cn=all,dc=example,dc=test\nobjectClass: groupOfNames\ncn: all\n"
                                   "member: uid=u0,ou=people,dc=example,dc=test\n"
                                   "member: uid=boss,ou=board,dc=example,dc=test\n\n",
            .databaseLines = {"access to dn.subtree=\"ou=board,dc=example,dc=test\" by * none",
                "access to attrs=mail by * none", "access to * by * read"}});
    Settings settings;
    settings.uri = urlOf(slapd.url());
    const auto manager = createManagerOrThrow(settings);
    Deliveries<User> users;
    manager->fetchUsersAsync(users.handler(), {qt(slapd.suffix()), {}});
    EXPECT_EQ(users.waitForEnd(), Result::ok);
    EXPECT_THAT(users.records(),
        ElementsAre(::testing::Field(&User::login, "u0"_s), ::testing::Field(&User::login, "u1"_s)));
    EXPECT_THAT(users.records(), ::testing::Each(::testing::Field(&User::email, QString())));

    Deliveries<Group> groups;
    manager->fetchGroupsAsync(groups.handler(), {qt(slapd.suffix()), {}});
    EXPECT_EQ(groups.waitForEnd(), Result::ok);
    ASSERT_THAT(groups.records(), SizeIs(1));
    EXPECT_THAT(groups.records()[0].members, SizeIs(2)) << "a list of members names hidden ones, too";

    Deliveries<User> hidden;
    manager->fetchUsersAsync(hidden.handler(), {"ou=board,dc=example,dc=test"_s, {}});
    EXPECT_EQ(hidden.waitForEnd(), Result::noSuchObject);
}

TEST(OpenLdapTest, RefusesAnAnonymousBindWhereThatIsForbidden)
{
    const Slapd slapd({.globalLines = {"disallow bind_anon"}});
    try {
        anonymousSession(slapd)->bind(QString(), QString());
        FAIL() << "nothing thrown";
    } catch (const BaseError& error) {
        EXPECT_EQ(error.ldapCode, 48);
    }
}

TEST(OpenLdapTest, ServesItsUsersWhereNothingCanBeReadWithoutABind)
{
    const Slapd slapd({.ldif = test::people(2), .globalLines = {"require authc"}});
    Settings settings;
    settings.uri = urlOf(slapd.url());
    settings.adminDn = qt(slapd.rootDn());
    settings.adminPassword = qt(slapd.rootPassword());
    const test::LogCapture log;
    const auto manager = createManagerOrThrow(settings);
    EXPECT_TRUE(log.contains("Detect LDAP vendor error"));
    Deliveries<User> users;
    manager->fetchUsersAsync(users.handler(), {qt(slapd.suffix()), {}});
    EXPECT_EQ(users.waitForEnd(), Result::ok);
    EXPECT_THAT(users.records(), SizeIs(2));
}

TEST(OpenLdapTest, RefusesActiveDirectoryFormsOfBindNames)
{
    const Slapd slapd({.ldif = test::people(1)});
    for (const char* const name : {"u0", "u0@example.test", "EXAMPLE\\u0"}) {
        try {
            anonymousSession(slapd)->bind(qt(name), "secret"_s);
            FAIL() << "nothing thrown";
        } catch (const BaseError& error) {
            EXPECT_EQ(error.ldapCode, 34) << name;
        }
    }
}

TEST(OpenLdapTest, RefusesLockedAccountsAndBlocksReadsUntilAPasswordChange)
{
    const Slapd slapd({.ldif = test::people(1) +
                               "dn: cn=policy,dc=example,dc=test\nobjectClass: device\n"
                               "objectClass: pwdPolicy\ncn: policy\npwdAttribute: userPassword\n"
                               "pwdLockout: TRUE\npwdMustChange: TRUE\n\n"
                               "dn: cn=locked,dc=example,dc=test\nobjectClass: person\ncn: locked\nsn: x\n"
                               "userPassword: secret\npwdAccountLockedTime: 000001010000Z\n\n"
                               "dn: cn=reset,dc=example,dc=test\nobjectClass: person\ncn: reset\nsn: x\n"
                               "userPassword: secret\npwdReset: TRUE\n\n",
        .modules = {"ppolicy"},
        .databaseLines = {"overlay ppolicy", "ppolicy_default \"cn=policy,dc=example,dc=test\""}});
    const auto session = anonymousSession(slapd);
    EXPECT_THROW(session->bind("cn=locked,dc=example,dc=test"_s, "secret"_s), InvalidCredentialsError);
    EXPECT_NO_THROW(session->bind("cn=reset,dc=example,dc=test"_s, "secret"_s));
    EXPECT_EQ(unpagedCode(*session, peopleSearch()), 50);
    EXPECT_EQ(std::get<Result>(session->search(peopleSearch(), 10)), Result::connectError);
}

TEST(OpenLdapTest, DeliversALargeOrganisationPageByPageAndALargeGroupWhole)
{
    constexpr int count = test::sanitized ? 5'000 : 100'000;
    std::string ldif = test::people(count);
    ldif += "dn: cn=all,dc=example,dc=test\nobjectClass: groupOfNames\ncn: all\n";
    for (int i = 0; i < count; ++i)
        ldif += "member: uid=u" + std::to_string(i) + ",ou=people,dc=example,dc=test\n";
    const Slapd slapd({.ldif = ldif, .databaseLines = {"limits * size=unlimited"}});
    Settings settings;
    settings.uri = urlOf(slapd.url());
    const auto manager = createManagerOrThrow(settings);
    Deliveries<User> users;
    manager->fetchUsersAsync(users.handler(), {qt(slapd.suffix()), {}});
    EXPECT_EQ(users.waitForEnd(), Result::ok);
    EXPECT_THAT(users.records(), SizeIs(count));
    EXPECT_THAT(users.all(), SizeIs(static_cast<std::size_t>(count / settings.searchPageSize + 1)));
    Deliveries<Group> groups;
    manager->fetchGroupsAsync(groups.handler(), {qt(slapd.suffix()), {}});
    EXPECT_EQ(groups.waitForEnd(), Result::ok);
    ASSERT_THAT(groups.records(), SizeIs(1));
    EXPECT_THAT(groups.records()[0].members, SizeIs(count));
}

} // namespace
} // namespace tavo::ldap
