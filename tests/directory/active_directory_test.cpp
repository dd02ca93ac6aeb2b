// Users and groups of a real Active Directory domain.
#include "active_directory_staff.h"
#include "support/scripted_server.h"
#include <ldap/ranged_values.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <netdb.h>

#include <atomic>
#include <cstdlib>
#include <iostream>

namespace tavo::test {
namespace {

/// Where the process's look-ups of one host lead instead of there.
class Detour
{
public:
    Detour(std::string host, std::uint16_t port)
        : m_host(std::move(host))
        , m_port(std::to_string(port))
    {
        current = this;
    }
    ~Detour() { current = nullptr; }
    Detour(const Detour&) = delete;
    Detour& operator=(const Detour&) = delete;

    /// The port of 127.0.0.1 to go to; none for other hosts.
    static const char* portFor(const char* host)
    {
        const Detour* const detour = current;
        return detour == nullptr || host == nullptr || detour->m_host != host ? nullptr
                                                                              : detour->m_port.c_str();
    }

private:
    static inline std::atomic<const Detour*> current = nullptr;
    const std::string m_host;
    const std::string m_port;
};

} // namespace
} // namespace tavo::test

/// Stands before the C library's function of this name for the client library, too: whoever wants to go to
/// another server has to come by here.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(
    const char* host, const char* service, const addrinfo* hints, addrinfo** result)
{
    static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    if (const char* const port = tavo::test::Detour::portFor(host))
        return real("127.0.0.1", port, hints, result);
    return real(host, service, hints, result);
}

namespace tavo::ldap {
namespace {

using test::operator""_s;
using test::Deliveries;
using test::Entries;
using test::kEnabled;
using test::loginOf;
using test::qt;
using test::Samba;
using test::staffDn;
using test::urlOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

const QString kSuffix = qt(Samba::suffix);
const QString kAdministrator = qt(Samba::administrator);
const QString kPassword = qt(Samba::password);

/// With the two accounts that a new domain has.
std::vector<QString> enabledLogins()
{
    std::vector<QString> logins{"Administrator"_s, "dns-dc"_s};
    for (int number = 0; number < kEnabled; ++number) {
        logins.push_back(qt(loginOf(number)));
    }
    return logins;
}

class ActiveDirectoryTest : public ::testing::Test
{
protected:
    /// One domain serves all tests of a process. Not set up for the suite: its tests would count as skipped
    /// where that fails.
    ActiveDirectoryTest()
    {
        if (samba) {
            return;
        }
        samba = std::make_unique<Samba>(test::SambaOptions{.ldif = test::staff()});
        // As an administrator would, before the process's first use of the client library.
        setenv("LDAPTLS_CACERT", samba->caCertificate().c_str(), 1);
        configuration.write("tavo_ldap.ini", "logResponseReferences = true\n");
        setenv("TAVO_CONFIG_DIR", configuration.path().c_str(), 1);
    }

    static void TearDownTestSuite() { samba.reset(); }

    void TearDown() override
    {
        if (HasFailure()) {
            std::cerr << "What Samba said:\n" << samba->log();
        }
    }

    static Settings settings()
    {
        Settings settings;
        settings.uri = urlOf(samba->ldapsUrl());
        settings.adminDn = kAdministrator;
        settings.adminPassword = kPassword;
        settings.searchPageSize = 10;
        return settings;
    }

    static SearchFilter everything(const QString& filter = {}) { return {kSuffix, filter}; }

    static std::vector<QString> fetchLogins(const QString& filter = {})
    {
        const auto manager = createManagerOrThrow(settings());
        Deliveries<User> users;
        manager->fetchUsersAsync(users.handler(), everything(filter));
        EXPECT_EQ(users.waitForEnd(), Result::ok);
        return loginsOf(users.records());
    }

    static std::vector<QString> loginsOf(const std::vector<User>& users)
    {
        std::vector<QString> logins;
        for (const User& user : users) {
            logins.push_back(user.login);
        }
        return logins;
    }

    static std::vector<QString> membersOf(const std::string& group)
    {
        const auto manager = createManagerOrThrow(settings());
        Deliveries<Group> groups;
        manager->fetchGroupsAsync(groups.handler(), everything(qt("(sAMAccountName=" + group + ")")));
        EXPECT_EQ(groups.waitForEnd(), Result::ok);
        const auto records = groups.records();
        EXPECT_THAT(records, ElementsAre(Field(&Group::name, qt(group))));
        return records.empty() ? std::vector<QString>{"no such group"_s} : records[0].members;
    }

    /// How so many fetches of all users end, none of which asks for its second page before all have had their
    /// first one from the server; and what they have brought.
    static std::vector<std::pair<Result, std::size_t>> fetchAtOnce(std::size_t count)
    {
        const auto manager = createManagerOrThrow(settings());
        std::vector<Deliveries<User>> fetches(count);
        const auto startOthers = [&] {
            for (std::size_t other = 1; other < count; ++other) {
                const test::LogCapture log;
                manager->fetchUsersAsync(fetches[other].handler(), everything());
                EXPECT_TRUE(log.waitFor("Found 10 entries on page 1"));
            }
        };
        // The others' first pages can't be delivered while this handler runs.
        manager->fetchUsersAsync(
            [&](Result result, std::vector<User> page) {
                if (fetches[0].all().empty()) {
                    startOthers();
                }
                fetches[0].add(result, std::move(page));
            },
            everything());
        std::vector<std::pair<Result, std::size_t>> outcomes;
        for (auto& fetch : fetches) {
            const Result result = fetch.waitForEnd();
            outcomes.emplace_back(result, fetch.records().size());
        }
        return outcomes;
    }

    static std::unique_ptr<Session> secureSession()
    {
        return std::make_unique<Session>(urlOf(samba->ldapsUrl()), false, false);
    }

    static std::unique_ptr<Session> boundSession()
    {
        auto session = secureSession();
        session->bind(kAdministrator, kPassword);
        return session;
    }

    static inline const test::TemporaryDirectory configuration;
    static inline std::unique_ptr<Samba> samba;
};

TEST_F(ActiveDirectoryTest, IsRecognisedBeforeAnybodyBinds)
{
    for (const std::string& url : {samba->url(), samba->ldapsUrl()}) {
        const VendorDefaults defaults = Session(urlOf(url), false, false).detectLdapVendor();
        EXPECT_EQ(defaults.loginAttribute, "sAMAccountName"_s);
        EXPECT_EQ(defaults.groupObjectClass, "group"_s);
        EXPECT_EQ(defaults.memberAttribute, QByteArray("member"));
        EXPECT_EQ(defaults.userFilter,
            "(&(objectCategory=User)(!(userAccountControl:1.2.840.113556.1.4.803:=2)))"_s);
    }
}

TEST_F(ActiveDirectoryTest, AnswersNoSearchWithoutABind)
{
    const auto session = secureSession();
    try {
        session->simpleSearch({kSuffix, QString(), {}, SearchScope::subtree});
        FAIL() << "nothing thrown";
    } catch (const BaseError& error) {
        EXPECT_EQ(error.ldapCode, 1);
    }
}

TEST_F(ActiveDirectoryTest, FetchesExactlyTheEnabledUsersPageByPage)
{
    const test::LogCapture log;
    const auto manager = createManagerOrThrow(settings());
    Deliveries<User> users;
    manager->fetchUsersAsync(users.handler(), everything());
    EXPECT_EQ(users.waitForEnd(), Result::ok);
    EXPECT_THAT(loginsOf(users.records()), UnorderedElementsAreArray(enabledLogins()));
    EXPECT_THAT(users.results(), ElementsAre(Result::moreResults, Result::moreResults, Result::ok));
    // A contact has no account that could be disabled, so the server's filter lets it pass.
    EXPECT_TRUE(log.contains("Ignoring entry with empty login: " + staffDn("Supplier")));
    EXPECT_EQ(log.texts(log::Level::warning), std::vector<std::string>());
}

TEST_F(ActiveDirectoryTest, FetchesAUsersNameAndAddress)
{
    const auto manager = createManagerOrThrow(settings());
    Deliveries<User> users;
    manager->fetchUsersAsync(users.handler(), everything("(sAMAccountName=user02)"_s));
    EXPECT_EQ(users.waitForEnd(), Result::ok);
    EXPECT_THAT(users.records(),
        ElementsAre(::testing::AllOf(Field(&User::dn, qt(staffDn("user02"))), Field(&User::login, "user02"_s),
            Field(&User::fullName, "Zoë Müller"_s), Field(&User::email, "user02@ad.test"_s))));
}

TEST_F(ActiveDirectoryTest, LeavesDisabledUsersOutAlsoWhenAskedForByName)
{
    EXPECT_THAT(fetchLogins(qt("(sAMAccountName=" + loginOf(kEnabled) + ")")), IsEmpty());
    EXPECT_THAT(fetchLogins("(sAMAccountName=Guest)"_s), IsEmpty());
}

TEST_F(ActiveDirectoryTest, DoesNotCountComputersAsUsers)
{
    EXPECT_THAT(fetchLogins("(objectClass=computer)"_s), IsEmpty());
    // They are users by class, so that it takes the category to tell.
    const auto found = boundSession()->simpleSearch(
        {kSuffix, "(&(objectClass=user)(cn=PC1))"_s, {"cn"}, SearchScope::subtree});
    EXPECT_THAT(found, ElementsAre(Field(&SearchEntry::dn, qt(staffDn("PC1")))));
}

TEST_F(ActiveDirectoryTest, BindsByDnByPrincipalNameAndByDomainName)
{
    for (const std::string& name :
        {staffDn("user00"), std::string("user00@ad.test"), std::string("ADTEST\\user00")}) {
        EXPECT_NO_THROW(secureSession()->bind(qt(name), kPassword)) << name;
        EXPECT_THROW(secureSession()->bind(qt(name), "wrong"_s), InvalidCredentialsError) << name;
    }
}

TEST_F(ActiveDirectoryTest, ServesAnOrdinaryAccount)
{
    Settings settings = ActiveDirectoryTest::settings();
    settings.adminDn = "user00@ad.test"_s;
    const auto manager = createManagerOrThrow(settings);
    Deliveries<User> users;
    manager->fetchUsersAsync(users.handler(), everything());
    EXPECT_EQ(users.waitForEnd(), Result::ok);
    EXPECT_THAT(loginsOf(users.records()), UnorderedElementsAreArray(enabledLogins()));
    Deliveries<Group> groups;
    manager->fetchGroupsAsync(groups.handler(), everything("(sAMAccountName=Nested)"_s));
    EXPECT_EQ(groups.waitForEnd(), Result::ok);
    EXPECT_THAT(groups.records(), ElementsAre(Field(&Group::members, ::testing::SizeIs(2))));
}

TEST_F(ActiveDirectoryTest, RefusesABareLogin)
{
    EXPECT_THROW(secureSession()->bind("user00"_s, kPassword), InvalidCredentialsError);
}

TEST_F(ActiveDirectoryTest, RefusesDisabledAndUnknownAccountsLikeAWrongPassword)
{
    for (const std::string& name : {loginOf(kEnabled) + "@ad.test", std::string("nobody@ad.test")}) {
        try {
            secureSession()->bind(qt(name), kPassword);
            FAIL() << name;
        } catch (const InvalidCredentialsError& error) {
            EXPECT_EQ(error.user, qt(name));
        }
    }
}

TEST_F(ActiveDirectoryTest, TakesASimpleBindOnlyOverTls)
{
    try {
        Session(urlOf(samba->url()), false, false).bind(kAdministrator, kPassword);
        FAIL() << "nothing thrown";
    } catch (const BaseError& error) {
        EXPECT_EQ(error.ldapCode, 8);
        EXPECT_EQ(error.context, "bind"_s);
    }
    Settings settings = ActiveDirectoryTest::settings();
    EXPECT_TRUE(testLdapConnection(settings)) << "ldaps";
    settings.uri = urlOf(samba->url());
    EXPECT_FALSE(testLdapConnection(settings)) << "plain";
    settings.startTls = true;
    EXPECT_TRUE(testLdapConnection(settings)) << "StartTLS";
}

/// Samba 4.17 doesn't know the question, Samba 4.22 does.
TEST_F(ActiveDirectoryTest, AnswersWhoAmIOrReportsThatItCannot)
{
    const auto session = boundSession();
    try {
        EXPECT_EQ(session->whoAmI(), "u:ADTEST\\Administrator"_s);
    } catch (const BaseError& error) {
        EXPECT_EQ(error.ldapCode, 2);
        EXPECT_EQ(error.context, "whoAmI"_s);
    }
    EXPECT_THAT(session->simpleSearch({kSuffix, QString(), {"dc"}, SearchScope::base}), ::testing::SizeIs(1))
        << "the connection is still good";
}

TEST_F(ActiveDirectoryTest, LogsTheReferralsOfASearchInPages)
{
    const test::LogCapture log;
    EXPECT_THAT(fetchLogins("(sAMAccountName=user00)"_s), ElementsAre("user00"_s));
    EXPECT_TRUE(log.contains("Not chasing reference received from server: "
                             "ldaps://ad.test/CN=Configuration,DC=ad,DC=test"));
    const test::LogCapture withoutPages;
    boundSession()->simpleSearch({kSuffix, "(sAMAccountName=user00)"_s, {"cn"}, SearchScope::subtree});
    EXPECT_FALSE(withoutPages.contains("Not chasing"));
}

TEST_F(ActiveDirectoryTest, SendsReferralsThatAreNotFollowed)
{
    test::ScriptedServer elsewhere;
    elsewhere.greet(test::closeConnection());
    const test::Detour detour(Samba::domain, elsewhere.port());
    const SearchParams params{kSuffix, "(sAMAccountName=user00)"_s, {"cn"}, SearchScope::subtree};
    Session plain(urlOf(samba->url()), true, false);
    plain.bind(kAdministrator, kPassword);
    const auto secure = boundSession();
    for (Session* const session : {&plain, secure.get()}) {
        EXPECT_THAT(session->simpleSearch(params), ::testing::SizeIs(1));
        EXPECT_THAT(std::get<1>(session->search(params, 10)), ::testing::SizeIs(1));
    }
    EXPECT_EQ(elsewhere.connections(), 0U);
    Session(urlOf(std::string("ldap://") + Samba::domain), false, false).detectLdapVendor();
    EXPECT_EQ(elsewhere.connections(), 1U) << "whoever chases them arrives here";
}

TEST_F(ActiveDirectoryTest, ReportsABaseOfAnotherDomainAsOneThatDoesNotExist)
{
    const auto found = boundSession()->search(
        {"DC=other,DC=test"_s, "(objectClass=user)"_s, {"cn"}, SearchScope::subtree}, 10);
    EXPECT_EQ(std::get<Result>(found), Result::noSuchObject);
}

TEST_F(ActiveDirectoryTest, FetchesGroupsWithTheMembersThatTheServerLists)
{
    std::vector<QString> everybody;
    for (int number = 0; number < kEnabled; ++number) {
        everybody.push_back(qt(staffDn(loginOf(number))));
    }
    EXPECT_THAT(membersOf("Everybody"), UnorderedElementsAreArray(everybody));
    EXPECT_THAT(membersOf("Nobody"), IsEmpty());
}

TEST_F(ActiveDirectoryTest, ListsANestedGroupAsAMemberAndNotItsMembers)
{
    EXPECT_THAT(membersOf("Nested"), UnorderedElementsAre(qt(staffDn("Everybody")), qt(staffDn("user03"))));
}

TEST_F(ActiveDirectoryTest, FindsTheMembersOfNestedGroupsWhenAskedWithTheChainRule)
{
    auto expected = enabledLogins();
    expected.erase(expected.begin(), expected.begin() + 2);
    EXPECT_THAT(fetchLogins(qt("(memberOf:1.2.840.113556.1.4.1941:=" + staffDn("Nested") + ")")),
        UnorderedElementsAreArray(expected));
}

TEST_F(ActiveDirectoryTest, ListsNobodyInThePrimaryGroupOfAll)
{
    const auto session = boundSession();
    const auto users = session->simpleSearch(
        {kSuffix, "(&(sAMAccountName=user00)(primaryGroupID=513))"_s, {"memberOf"}, SearchScope::subtree});
    ASSERT_THAT(users, ::testing::SizeIs(1));
    EXPECT_THAT(users[0].getAttribute("memberOf"_s).values, ElementsAre(qt(staffDn("Everybody"))));
    EXPECT_THAT(membersOf("Domain Users"), IsEmpty());
}

TEST_F(ActiveDirectoryTest, ServesTwoFetchesOfOneManagerAtTheSameTime)
{
    const auto manager = createManagerOrThrow(settings());
    Deliveries<User> users;
    Deliveries<Group> groups;
    bool interleaved = false;
    manager->fetchUsersAsync(
        [&](Result result, std::vector<User> page) {
            if (users.all().empty()) {
                // The groups' first page comes before the users' second one is asked for.
                const test::LogCapture log;
                manager->fetchGroupsAsync(groups.handler(), everything());
                interleaved = log.waitFor("Found 10 entries on page 1");
            }
            users.add(result, std::move(page));
        },
        everything());
    EXPECT_EQ(users.waitForEnd(), Result::ok);
    EXPECT_EQ(groups.waitForEnd(), Result::ok);
    EXPECT_TRUE(interleaved);
    EXPECT_THAT(loginsOf(users.records()), UnorderedElementsAreArray(enabledLogins()));
    EXPECT_GT(groups.all().size(), 3U);
    EXPECT_THAT(groups.records(), Contains(Field(&Group::name, "Nested"_s)));
}

TEST_F(ActiveDirectoryTest, ServesTenFetchesOfOneManagerAtTheSameTime)
{
    EXPECT_THAT(fetchAtOnce(10), Each(std::pair(Result::ok, enabledLogins().size())));
}

/// Samba keeps ten searches of a connection, and forgets the one that was used least recently for an
/// eleventh.
TEST_F(ActiveDirectoryTest, FailsTheOldestOfElevenFetchesOfOneManager)
{
    auto outcomes = fetchAtOnce(11);
    EXPECT_EQ(outcomes.front().first, Result::connectError);
    EXPECT_LT(outcomes.front().second, enabledLogins().size());
    outcomes.erase(outcomes.begin());
    EXPECT_THAT(outcomes, Each(std::pair(Result::ok, enabledLogins().size())));
}

/// Samba sends ranges only when it is asked for them.
TEST_F(ActiveDirectoryTest, SendsTheRangesOfAGroupThatMakeItWhole)
{
    const auto session = boundSession();
    const auto ask = [&](const QByteArray& attribute) {
        const auto found =
            session->simpleSearch({qt(test::staffDn("Everybody")), {}, {attribute}, SearchScope::base});
        return found.at(0).attributes.at(0);
    };
    const Attribute whole = ask("member");
    ASSERT_EQ(whole.values.size(), std::size_t{kEnabled});

    RangedValues members("member"_s);
    members.add(ask("member;range=0-9"));
    EXPECT_FALSE(members.isComplete());
    members.add(ask(members.next()));

    EXPECT_TRUE(members.isComplete());
    EXPECT_EQ(members.take(), whole.values);
}

} // namespace
} // namespace tavo::ldap
