// Users and groups of a real server.
#include "directory_test.h"
#include "support/assertion_capture.h"
#include "support/blocked_call.h"
#include "support/sample_directory.h"
#include "support/scripted_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>

namespace tavo::ldap {
namespace {

using test::operator""_s;
using test::Deliveries;
using test::qt;
using test::Slapd;
using test::urlOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

Settings settingsFor(const Slapd& slapd)
{
    Settings settings;
    settings.uri = urlOf(slapd.url());
    settings.adminDn = qt(slapd.rootDn());
    settings.adminPassword = qt(slapd.rootPassword());
    settings.searchPageSize = 100;
    return settings;
}

TEST(ConnectionTest, SucceedsWithTheRightPasswordAndOnlyWithIt)
{
    const Slapd slapd;
    Settings settings = settingsFor(slapd);
    EXPECT_TRUE(testLdapConnection(settings));
    settings.adminPassword = "wrong"_s;
    EXPECT_FALSE(testLdapConnection(settings));
    settings.adminDn.clear();
    settings.adminPassword.clear();
    EXPECT_TRUE(testLdapConnection(settings));
}

TEST(ConnectionTest, FailsWhenNobodyListens)
{
    Slapd slapd;
    slapd.stop();
    EXPECT_FALSE(testLdapConnection(settingsFor(slapd)));
}

TEST(ConnectionTest, FailsWhenStartTlsIsRefused)
{
    const Slapd slapd;
    Settings settings = settingsFor(slapd);
    settings.startTls = true;
    EXPECT_FALSE(testLdapConnection(settings));
}

TEST(AsyncConnectionTest, CallsNothingWhenItSucceeds)
{
    const Slapd slapd;
    int failures = 0;
    testLdapConnectionAsync(settingsFor(slapd), [&] { ++failures; }).get();
    EXPECT_EQ(failures, 0);
}

TEST(AsyncConnectionTest, CallsItsHandlerOnceOnItsOwnThreadWhenItFails)
{
    const Slapd slapd;
    Settings settings = settingsFor(slapd);
    settings.adminPassword = "wrong"_s;
    int failures = 0;
    std::thread::id thread;
    testLdapConnectionAsync(settings, [&] {
        ++failures;
        thread = std::this_thread::get_id();
    }).get();
    EXPECT_EQ(failures, 1);
    EXPECT_NE(thread, std::this_thread::get_id());
}

TEST(AsyncConnectionTest, IsWaitedForWhenItsFutureIsDropped)
{
    test::ScriptedServer server;
    const test::Gate answer;
    server.expectBind().answer(test::waitFor(answer), test::result(49));
    Settings settings;
    settings.uri = urlOf(server.url());
    bool failed = false;
    auto tested = testLdapConnectionAsync(settings, [&] { failed = true; });
    server.waitForRequests(1);

    test::BlockedCall dropping([&] { tested = {}; });

    EXPECT_TRUE(dropping.isWaiting());
    answer.open();
    dropping.get();
    EXPECT_TRUE(failed);
}

TEST(AsyncConnectionTest, KeepsWhatItsHandlerThrows)
{
    Slapd slapd;
    slapd.stop();
    EXPECT_THROW(testLdapConnectionAsync(settingsFor(slapd), {}).get(), std::bad_function_call);
    EXPECT_THROW(testLdapConnectionAsync(settingsFor(slapd), [] { throw std::runtime_error("no"); }).get(),
        std::runtime_error);
}

TEST(ManagerCreationTest, SaysThatItBindsAnonymously)
{
    const Slapd slapd;
    Settings settings = settingsFor(slapd);
    settings.adminDn.clear();
    settings.adminPassword.clear();
    const test::LogCapture log;
    const auto manager = createManagerOrThrow(settings);
    EXPECT_THAT(log.texts(log::Level::info), ElementsAre("Admin DN not specified, using anonymous session"));
}

TEST(ManagerCreationTest, ThrowsWhereAnonymousBindsAreRefused)
{
    const Slapd slapd({.globalLines = {"disallow bind_anon"}});
    Settings settings = settingsFor(slapd);
    settings.adminDn.clear();
    settings.adminPassword.clear();
    EXPECT_THROW(createManagerOrThrow(settings), BaseError);
}

TEST(ManagerCreationTest, RefusesAWrongPasswordAfterAskingForTheVendor)
{
    const Slapd slapd;
    Settings settings = settingsFor(slapd);
    settings.adminPassword = "wrong"_s;
    const test::LogCapture log;
    EXPECT_THROW(createManagerOrThrow(settings), InvalidCredentialsError);
    EXPECT_TRUE(log.contains("Performing non-paged search"));
}

TEST(ManagerCreationTest, LogsTheSettingsWithoutThePassword)
{
    const Slapd slapd;
    const test::LogCapture log;
    createManagerOrThrow(settingsFor(slapd));
    EXPECT_THAT(log.texts(log::Level::verbose),
        Contains(::testing::AllOf(
            HasSubstr("Init LDAP session with settings {"), HasSubstr(R"("adminPassword":"******")"))));
    EXPECT_FALSE(log.contains(slapd.rootPassword() + "\""));
}

TEST(ManagerCreationTest, MasksAnEmptyPasswordLikeAnyOther)
{
    const Slapd slapd;
    Settings settings = settingsFor(slapd);
    settings.adminDn.clear();
    settings.adminPassword.clear();
    const test::LogCapture log;
    createManagerOrThrow(settings);
    EXPECT_TRUE(log.contains(R"("adminPassword":"******")"));
}

TEST(ManagerCreationTest, ShowsThePasswordOnlyWhenThatIsAllowed)
{
    const Slapd slapd;
    const test::LogCapture log;
    log::setShowPasswords(true);
    createManagerOrThrow(settingsFor(slapd));
    log::setShowPasswords(false);
    EXPECT_TRUE(log.contains(R"("adminPassword":")" + slapd.rootPassword() + R"(")"));
}

/// The sample organisation, which is larger than a page.
class FetchTest : public ::testing::Test
{
protected:
    FetchTest()
        : m_sample(test::sampleDirectory())
        , m_slapd({.ldif = m_sample.ldif, .checksSchema = false})
        , m_manager(createManagerOrThrow(settingsFor(m_slapd)))
        , m_everything{qt(m_slapd.suffix()), QString()}
    {}

    std::vector<Group> fetchGroups(const QString& filter = {})
    {
        Deliveries<Group> groups;
        m_manager->fetchGroupsAsync(groups.handler(), {m_everything.base, filter});
        EXPECT_EQ(groups.waitForEnd(), Result::ok);
        return groups.records();
    }

    test::ThreadsEndHere m_threads;
    test::SampleDirectory m_sample;
    Slapd m_slapd;
    std::unique_ptr<Manager> m_manager;
    SearchFilter m_everything;
};

TEST_F(FetchTest, FetchesEveryUserWithALogin)
{
    Deliveries<User> users;
    const test::LogCapture log;
    m_manager->fetchUsersAsync(users.handler(), {"ou=people,"_s + m_everything.base, QString()});
    EXPECT_EQ(users.waitForEnd(), Result::ok);
    EXPECT_THAT(users.records(), SizeIs(static_cast<std::size_t>(m_sample.peopleWithLogin)));
    EXPECT_THAT(users.records(), Each(::testing::Field(&User::login, Not(QString()))));
    EXPECT_GT(users.all().size(), 10U);
    const auto count = [&](const std::string& start) {
        const auto texts = log.texts();
        return std::count_if(
            texts.begin(), texts.end(), [&](const std::string& text) { return text.rfind(start, 0) == 0; });
    };
    EXPECT_EQ(count("Ignoring entry with empty login: cn="), m_sample.people - m_sample.peopleWithLogin);
    std::size_t found = 0;
    for (const auto& delivery : users.all()) {
        EXPECT_TRUE(log.contains("Found " + std::to_string(delivery.records.size()) + " users"));
        found += delivery.records.size();
    }
    EXPECT_EQ(found, static_cast<std::size_t>(m_sample.peopleWithLogin));
}

TEST_F(FetchTest, NarrowsTheUsersByTheCallersFilter)
{
    Deliveries<User> users;
    const test::LogCapture log;
    m_manager->fetchUsersAsync(users.handler(), {m_everything.base, " (mail=*) "_s});
    EXPECT_EQ(users.waitForEnd(), Result::ok);
    EXPECT_FALSE(users.records().empty());
    EXPECT_THAT(users.records(), Each(::testing::Field(&User::email, Not(QString()))));
    EXPECT_TRUE(log.contains("with [(mail=*)] filter"));
}

TEST_F(FetchTest, FetchesEveryGroupAlsoTheEmptyOne)
{
    const auto groups = fetchGroups();
    ASSERT_THAT(groups, SizeIs(static_cast<std::size_t>(m_sample.groups)));
    const auto membersOf = [&](const QString& name) {
        const auto found = std::find_if(
            groups.begin(), groups.end(), [&](const Group& group) { return group.name == name; });
        return found == groups.end() ? -1 : static_cast<int>(found->members.size());
    };
    EXPECT_EQ(membersOf("All staff"_s), m_sample.people);
    EXPECT_EQ(membersOf("Newcomers"_s), 0);
    EXPECT_GT(membersOf("Sales\\2C EMEA"_s), 0);
}

TEST_F(FetchTest, PutsTheCallersGroupFilterFirst)
{
    const test::LogCapture log;
    EXPECT_THAT(fetchGroups(" cn=Newcomers "_s), SizeIs(1));
    EXPECT_TRUE(log.contains("with [(&(cn=Newcomers)(objectClass=groupOfNames))] filter"));
}

TEST_F(FetchTest, FetchesUsersAndGroupsConcurrently)
{
    Deliveries<User> users;
    Deliveries<Group> groups;
    m_manager->fetchUsersAsync(users.handler(), m_everything);
    m_manager->fetchGroupsAsync(groups.handler(), m_everything);
    EXPECT_EQ(users.waitForEnd(), Result::ok);
    EXPECT_EQ(groups.waitForEnd(), Result::ok);
    EXPECT_THAT(users.records(), SizeIs(static_cast<std::size_t>(m_sample.peopleWithLogin)));
    EXPECT_THAT(groups.records(), SizeIs(static_cast<std::size_t>(m_sample.groups)));
}

TEST_F(FetchTest, PassesAFailureOnWithoutRecordsAndWarns)
{
    const test::LogCapture log;
    Deliveries<User> users;
    m_manager->fetchUsersAsync(users.handler(), {"ou=nowhere,dc=example,dc=test"_s, {}});
    EXPECT_EQ(users.waitForEnd(), Result::noSuchObject);
    EXPECT_THAT(users.records(), IsEmpty());
    Deliveries<Group> groups;
    m_manager->fetchGroupsAsync(groups.handler(), {"ou=nowhere,dc=example,dc=test"_s, {}});
    EXPECT_EQ(groups.waitForEnd(), Result::noSuchObject);
    EXPECT_THAT(log.texts(log::Level::warning), ElementsAre("Users fetching error: No target object found.",
                                                    "Groups fetching error: No target object found."));
}

TEST_F(FetchTest, NeverCallsTheHandlerOfAnAbandonedFetch)
{
    m_slapd.suspend();
    Deliveries<User> users;
    m_manager->stopAsyncFetch(m_manager->fetchUsersAsync(users.handler(), m_everything));
    m_slapd.resume();
    EXPECT_THAT(fetchGroups(), Not(IsEmpty()));
    EXPECT_THAT(users.all(), IsEmpty());
}

TEST_F(FetchTest, CancelsARunningFetchWhenTheManagerGoes)
{
    const test::LogCapture log;
    m_slapd.suspend();
    Deliveries<User> users;
    m_manager->fetchUsersAsync(users.handler(), m_everything);
    m_manager.reset();
    EXPECT_THAT(users.results(), ElementsAre(Result::cancelled));
    EXPECT_TRUE(log.contains("Users fetching error: LDAP search is cancelled."));
    m_slapd.resume();
}

TEST_F(FetchTest, LetsAHandlerAbandonItsOwnFetch)
{
    std::promise<SearchContext*> started;
    auto context = started.get_future().share();
    std::promise<void> abandoned;
    started.set_value(m_manager->fetchUsersAsync(
        [&](Result, const std::vector<User>&) {
            m_manager->stopAsyncFetch(context.get());
            abandoned.set_value();
        },
        m_everything));
    abandoned.get_future().get();
    EXPECT_THAT(fetchGroups(), Not(IsEmpty()));
}

TEST_F(FetchTest, LetsAHandlerDestroyTheManagerInItsFinalCall)
{
    std::promise<void> destroyed;
    m_manager->fetchUsersAsync(
        [&](Result result, const std::vector<User>&) {
            if (result == Result::ok) {
                m_manager.reset();
                destroyed.set_value();
            }
        },
        m_everything);
    destroyed.get_future().get();
    EXPECT_EQ(m_manager, nullptr);
}

/// A slapd that passes for an Active Directory.
class ActiveDirectoryLookalikeTest : public ::testing::Test
{
protected:
    static test::SlapdOptions options()
    {
        test::SlapdOptions options = test::likeActiveDirectory();
        for (const auto& [name, control] : {std::pair{"ann", "512"}, {"bob", "514"}, {"cid", "66048"}}) {
            options.ldif += std::string("dn: cn=") + name + ",dc=ad,dc=test\nobjectClass: user\nsn: " + name +
                            "\ncn: " + name + "\nsAMAccountName: " + name +
                            "\nobjectCategory: User\nuserAccountControl: " + control + "\n\n";
        }
        options.ldif += "dn: cn=staff,dc=ad,dc=test\nobjectClass: group\ncn: staff\n"
                        "objectCategory: Group\nmember: cn=ann,dc=ad,dc=test\n\n";
        return options;
    }
};

TEST_F(ActiveDirectoryLookalikeTest, FetchesTheEnabledUsersAndTheGroups)
{
    const Slapd slapd(options());
    const auto manager = createManagerOrThrow(settingsFor(slapd));
    const test::LogCapture log;
    Deliveries<User> users;
    manager->fetchUsersAsync(users.handler(), {qt(slapd.suffix()), "(cn=*)"_s});
    EXPECT_EQ(users.waitForEnd(), Result::ok);
    EXPECT_THAT(users.records(),
        ElementsAre(::testing::Field(&User::login, "ann"_s), ::testing::Field(&User::login, "cid"_s)));
    EXPECT_TRUE(log.contains("with [(&(cn=*)(&(objectCategory=User)(!(userAccountControl:"
                             "1.2.840.113556.1.4.803:=2))))] filter (attributes: { displayName, gecos, mail, "
                             "sAMAccountName })"));
    Deliveries<Group> groups;
    manager->fetchGroupsAsync(groups.handler(), {qt(slapd.suffix()), {}});
    EXPECT_EQ(groups.waitForEnd(), Result::ok);
    ASSERT_THAT(groups.records(), SizeIs(1));
    EXPECT_EQ(groups.records()[0].name, "staff"_s);
    EXPECT_THAT(groups.records()[0].members, ElementsAre("cn=ann,dc=ad,dc=test"_s));
    EXPECT_TRUE(log.contains("with [objectClass=group] filter (attributes: { member })"));
}

TEST(MappingTest, UsesTheCallersNamesEvenEmptyOnes)
{
    const Slapd slapd;
    Settings settings = settingsFor(slapd);
    settings.loginAttribute = QString();
    settings.groupObjectClass = "posixGroup"_s;
    settings.memberAttribute = "memberUid"_s;
    const auto manager = createManagerOrThrow(settings);
    const test::LogCapture log;
    Deliveries<User> users;
    manager->fetchUsersAsync(users.handler(), {qt(slapd.suffix()), {}});
    users.waitForEnd();
    Deliveries<Group> groups;
    manager->fetchGroupsAsync(groups.handler(), {qt(slapd.suffix()), {}});
    groups.waitForEnd();
    EXPECT_TRUE(log.contains("with [] filter (attributes: { displayName, gecos, mail,  })"));
    EXPECT_TRUE(log.contains("with [objectClass=posixGroup] filter (attributes: { memberUid })"));
}

} // namespace
} // namespace tavo::ldap
