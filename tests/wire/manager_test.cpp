#include "scripted_session_test.h"
#include "support/assertion_capture.h"
#include "support/log_capture.h"
#include "support/no_threads.h"
#include "support/qt_printers.h"
#include "support/threads_end_here.h"
#include <ldap/manager.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <regex>
#include <system_error>

namespace tavo::test {

namespace {

using ldap::Group;
using ldap::Result;
using ldap::User;

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr auto kActiveDirectoryUsers =
    "(&(objectCategory=User)(!(userAccountControl:1.2.840.113556.1.4.803:=2)))";

/// What a fetch's handler was called with.
template <class Record>
class Fetched
{
public:
    struct Call
    {
        Result result;
        std::vector<Record> records;
    };

    auto handler()
    {
        return [this](Result result, std::vector<Record> records) {
            const std::lock_guard lock(m_mutex);
            m_calls.push_back({result, std::move(records)});
            if (result != Result::moreResults)
                m_ended.open();
        };
    }

    std::vector<Call> waitForEnd()
    {
        m_ended.wait("the end of a fetch");
        const std::lock_guard lock(m_mutex);
        return m_calls;
    }

private:
    std::mutex m_mutex;
    Gate m_ended;
    std::vector<Call> m_calls;
};

Entry user(const std::string& dn, const std::string& uid) { return entry(dn).attr("uid", uid); }

/// Managers of a scripted server.
class ManagerOfServer : public ::testing::Test
{
protected:
    ManagerOfServer()
    {
        settings.uri = utils::Url(QString::fromStdString(server.url()));
        settings.adminDn = "cn=admin"_s;
        settings.adminPassword = "secret"_s;
        settings.searchTimeout = std::chrono::seconds(3);
        settings.responseTimeout = std::chrono::seconds(7);
        settings.searchPageSize = 2;
    }

    std::unique_ptr<ldap::Manager> create(const std::vector<Entry>& rootDse = {})
    {
        server.expectSearch().answer(rootDse, done());
        server.expectBind("cn=admin", "secret").answer(success());
        return ldap::createManagerOrThrow(settings);
    }

    std::unique_ptr<ldap::Manager> createForActiveDirectory()
    {
        return create({entry("").attr("forestFunctionality", "7")});
    }

    /// Each starts a fetch with this filter of the caller's.
    void fetchUsers(ldap::Manager& manager, const QString& filter = {})
    {
        manager.fetchUsersAsync(users.handler(), {"dc=x"_s, filter});
    }
    void fetchGroups(ldap::Manager& manager, const QString& filter = {})
    {
        manager.fetchGroupsAsync(groups.handler(), {"dc=x"_s, filter});
    }

    ThreadsEndHere m_threads;
    ScriptedServer server;
    ldap::Settings settings;
    Fetched<User> users;
    Fetched<Group> groups;

private:
    UnthinnedLog m_unthinned;
};

TEST_F(ManagerOfServer, AsksForUsersPageByPageBelowTheBaseWithTheResponseTimeout)
{
    const auto manager = create();
    server.expectSearch()
        .base("dc=x")
        .scope(2)
        .filter("(objectclass=*)")
        .attributes({"displayName", "gecos", "mail", "uid"})
        .timeLimit(7)
        .sizeLimit(0)
        .paged(2, "")
        .answer(user("cn=1", "a"), user("cn=2", "b"), done().page("more"));
    server.expectSearch().paged(2, "more").answer(user("cn=3", "c"), done().page(""));

    fetchUsers(*manager);

    const auto calls = users.waitForEnd();
    ASSERT_THAT(calls, SizeIs(2));
    EXPECT_EQ(calls[0].result, Result::moreResults);
    EXPECT_THAT(calls[0].records, SizeIs(2));
    EXPECT_EQ(calls[1].result, Result::ok);
    ASSERT_THAT(calls[1].records, SizeIs(1));
    EXPECT_EQ(calls[1].records[0].login, "c"_s);
    EXPECT_EQ(calls[1].records[0].fullName, "3"_s);
}

TEST_F(ManagerOfServer, UsesTheDirectorysOwnNamesForWhatIsNotSet)
{
    const auto manager = createForActiveDirectory();
    server.expectSearch()
        .filter(kActiveDirectoryUsers)
        .attributes({"displayName", "gecos", "mail", "sAMAccountName"})
        .answer(done());
    fetchUsers(*manager);
    users.waitForEnd();
    server.expectSearch().filter("(objectClass=group)").attributes({"member"}).answer(done());
    fetchGroups(*manager);
    groups.waitForEnd();
}

TEST_F(ManagerOfServer, UsesTheNamesThatAreSetAlsoTwice)
{
    settings.loginAttribute = "mail"_s;
    settings.groupObjectClass = "posixGroup"_s;
    settings.memberAttribute = "memberUid"_s;
    const auto manager = createForActiveDirectory();
    server.expectSearch()
        .filter(kActiveDirectoryUsers)
        .attributes({"displayName", "gecos", "mail", "mail"})
        .answer(done());
    fetchUsers(*manager);
    users.waitForEnd();
    server.expectSearch().filter("(objectClass=posixGroup)").attributes({"memberUid"}).answer(done());
    fetchGroups(*manager);
    groups.waitForEnd();
}

TEST_F(ManagerOfServer, AsksForAnEmptyAttributeWhenTheLoginIsSetToNothing)
{
    settings.loginAttribute = QString();
    const auto manager = create();
    const LogCapture log;
    server.expectSearch()
        .attributes({"displayName", "gecos", "mail", ""})
        .answer(entry("cn=1").attr("uid", "a"), done());

    fetchUsers(*manager);

    EXPECT_THAT(users.waitForEnd().front().records, IsEmpty());
    EXPECT_TRUE(log.contains("Ignoring entry with empty login: cn=1"));
}

TEST_F(ManagerOfServer, TrimsTheCallersFilterAndPutsItFirst)
{
    const auto manager = createForActiveDirectory();
    server.expectSearch().filter(std::string("(&(cn=a*)") + kActiveDirectoryUsers + ")").answer(done());
    fetchUsers(*manager, "  cn=a*\n"_s);
    users.waitForEnd();
    server.expectSearch().filter("(&(cn=a*)(objectClass=group))").answer(done());
    fetchGroups(*manager, " (cn=a*) "_s);
    groups.waitForEnd();
}

TEST_F(ManagerOfServer, TakesABlankFilterForNone)
{
    const auto manager = create();
    server.expectSearch().filter("(objectClass=groupOfNames)").answer(done());

    fetchGroups(*manager, " \t "_s);

    groups.waitForEnd();
}

TEST_F(ManagerOfServer, LeavesOutUsersWithoutALoginAndNamesThem)
{
    const auto manager = create();
    const LogCapture log;
    server.expectSearch().answer(user("cn=1", "a"), entry("cn=2"), done());

    fetchUsers(*manager);

    EXPECT_THAT(users.waitForEnd().front().records, SizeIs(1));
    EXPECT_THAT(log.texts(log::Level::debug), Contains("Ignoring entry with empty login: cn=2"));
    EXPECT_THAT(log.texts(log::Level::verbose), Contains("Found 1 users"));
}

TEST_F(ManagerOfServer, GivesAGroupItsNameAndItsMembersInTheServersOrder)
{
    const auto manager = create();
    const LogCapture log;
    server.expectSearch().answer(entry("cn=staff,dc=x").attr("member", {"cn=b", "cn=a", "cn=b"}),
        entry("ou=,dc=x"), done().page("more"));
    server.expectSearch().answer(done());

    fetchGroups(*manager);

    const auto calls = groups.waitForEnd();
    ASSERT_THAT(calls, SizeIs(2));
    EXPECT_EQ(calls[0].result, Result::moreResults);
    ASSERT_THAT(calls[0].records, SizeIs(2));
    EXPECT_EQ(calls[0].records[0].dn, "cn=staff,dc=x"_s);
    EXPECT_EQ(calls[0].records[0].name, "staff"_s);
    EXPECT_THAT(calls[0].records[0].members, ElementsAre("cn=b"_s, "cn=a"_s, "cn=b"_s));
    EXPECT_EQ(calls[0].records[1].name, QString());
    EXPECT_THAT(calls[0].records[1].members, IsEmpty());
    EXPECT_THAT(log.texts(log::Level::verbose), Contains("Found 2 groups"));
}

TEST_F(ManagerOfServer, PassesOnTheServersLimitWithoutRecordsAfterThePagesBefore)
{
    const auto manager = create();
    const LogCapture log;
    server.expectSearch().answer(user("cn=1", "a"), user("cn=2", "b"), done().page("more"));
    server.expectSearch().answer(user("cn=3", "c"), done(4));

    fetchUsers(*manager);

    const auto calls = users.waitForEnd();
    ASSERT_THAT(calls, SizeIs(2));
    EXPECT_EQ(calls[1].result, Result::sizeLimitExceeded);
    EXPECT_THAT(calls[1].records, IsEmpty());
    EXPECT_THAT(log.texts(log::Level::warning),
        ElementsAre(
            "Users fetching error: Search limit exceeded. Narrow the searchPageSize in LDAP settings or "
            "fix the LDAP server configuration."));
}

TEST_F(ManagerOfServer, EndsAFetchAtAFullPageWithANameThatCannotBeRead)
{
    const auto manager = create();
    server.expectSearch().answer(user("cn=1", "a"), user("no DN at all", "b"), done().page("more"));
    fetchUsers(*manager);
    const auto userCalls = users.waitForEnd();
    EXPECT_THAT(userCalls, SizeIs(1));
    EXPECT_EQ(userCalls.front().result, Result::connectError);
    EXPECT_THAT(userCalls.front().records, IsEmpty());

    server.expectSearch().answer(entry("no DN at all"), entry("cn=2"), done().page("more"));
    fetchGroups(*manager);
    EXPECT_EQ(groups.waitForEnd().front().result, Result::connectError);
}

TEST_F(ManagerOfServer, NeverEndsAsSuccessAtAPageWithAnEmptyName)
{
    const auto manager = create();
    const LogCapture log;
    server.expectSearch().answer(entry("cn=1"), entry("cn=2"), done().page("more"));
    server.expectSearch().answer(entry(""), entry("cn=4"), done().page("more"));

    fetchGroups(*manager);

    const auto calls = groups.waitForEnd();
    EXPECT_THAT(calls, SizeIs(2));
    EXPECT_EQ(calls.back().result, Result::connectError);
    EXPECT_THAT(calls.back().records, IsEmpty());
    EXPECT_THAT(
        log.texts(log::Level::warning), ElementsAre("Groups fetching error: Cannot connect to LDAP server."));
}

TEST_F(ManagerOfServer, EndsAFetchAtALastPageWithANameThatCannotBeRead)
{
    const auto manager = create();
    for (const std::string& dn : {std::string("no DN at all"), std::string()}) {
        const LogCapture log;
        Fetched<Group> fetched;
        server.expectSearch().answer(entry(dn), done());

        manager->fetchGroupsAsync(fetched.handler(), {"dc=x"_s, {}});

        const auto calls = fetched.waitForEnd();
        EXPECT_THAT(calls, SizeIs(1));
        EXPECT_EQ(calls.back().result, Result::connectError);
        EXPECT_THAT(calls.back().records, IsEmpty());
        EXPECT_THAT(log.texts(log::Level::warning),
            ElementsAre("Groups fetching error: Cannot connect to LDAP server."));
    }
    server.expectSearch().answer(user("no DN at all", "a"), done());
    fetchUsers(*manager);
    EXPECT_EQ(users.waitForEnd().back().result, Result::connectError);
}

TEST_F(ManagerOfServer, WarnsOfAVendorQuestionThatWentUnanswered)
{
    server.expectSearch().answer(done(52));
    server.expectBind("cn=admin", "secret").answer(success());
    const LogCapture log;

    ldap::createManagerOrThrow(settings);

    EXPECT_THAT(log.texts(log::Level::warning),
        ElementsAre("Could not find out which kind of directory this is; using OpenLDAP's attributes: "
                    "ldap_search_ext_s: Server is unavailable"));
    EXPECT_THAT(log.texts(log::Level::debug),
        Contains("Detect LDAP vendor error: ldap_search_ext_s: Server is unavailable."));
}

TEST_F(ManagerOfServer, WarnsOfNoVendorQuestionThatWasAnswered)
{
    const LogCapture log;

    create();
    createForActiveDirectory();

    EXPECT_THAT(log.texts(log::Level::warning), IsEmpty());
}

TEST_F(ManagerOfServer, EndsAFetchWithoutAHandlerByAnException)
{
    const auto manager = create();
    const LogCapture log;
    server.expectSearch().answer(user("cn=1", "a"), done());

    manager->fetchUsersAsync({}, {"dc=x"_s, {}});

    EXPECT_TRUE(log.waitFor("The search below [dc=x] was ended by an exception: bad_function_call"));
}

TEST_F(ManagerOfServer, ThrowsAndDropsTheHandlerWhenNoThreadCanBeHadAndFetchesLater)
{
    const auto manager = create();
    UncalledHandler uncalled;
    {
        const NoThreads noThreads;
        EXPECT_THROW(manager->fetchUsersAsync(uncalled.handler(), {"dc=x"_s, {}}), std::system_error);
    }
    EXPECT_TRUE(uncalled.isDropped());

    server.expectSearch().answer(user("cn=1", "a"), done());
    fetchUsers(*manager);

    EXPECT_THAT(users.waitForEnd().front().records, SizeIs(1));
}

TEST_F(ManagerOfServer, RefusesAFetchWithAPageSizeThatIsNotPositive)
{
    settings.searchPageSize = 0;
    const auto manager = create();
    const AssertionCapture assertions;

    fetchUsers(*manager);

    EXPECT_EQ(users.waitForEnd().front().result, Result::ok);
    EXPECT_THAT(assertions.failures(),
        ElementsAre(AssertionCapture::Failure{"ldap/search_context", 186, "pageSize > 0", ""}));
}

TEST_F(ManagerOfServer, ReportsAPasswordWithoutADnAndLetsTheServerDecide)
{
    settings.adminDn.clear();
    server.expectSearch().answer(done());
    server.expectBind("", "secret").answer(success());
    const AssertionCapture assertions;
    const LogCapture log;

    EXPECT_NE(ldap::createManagerOrThrow(settings), nullptr);

    EXPECT_THAT(log.texts(log::Level::info), ElementsAre("Admin DN not specified, using anonymous session"));
    EXPECT_THAT(assertions.failures(),
        ElementsAre(AssertionCapture::Failure{"ldap/session", 80, "!(dn.isEmpty() ^ password.isEmpty())",
            "dn and password must be empty or not empty both at the same time"}));
}

/// "LEVEL TYPE: TEXT" of each line, with what differs from run to run left out.
std::vector<std::string> linesOf(const LogCapture& log)
{
    std::vector<std::string> lines;
    for (const auto& message : log.messages()) {
        const std::string tag = std::regex_replace(message.tag, std::regex("0x[0-9a-f]+"), "0x");
        const std::string text = std::regex_replace(message.text, std::regex(R"(127\.0\.0\.1:\d+)"), "HOST");
        lines.push_back(std::to_string(static_cast<int>(message.level)) + " " + tag + ": " + text);
    }
    return lines;
}

TEST_F(ManagerOfServer, LogsEachStepAtItsLevelUnderTheTypeThatTakesIt)
{
    const LogCapture log;
    auto manager = create({entry("").attr("forestFunctionality", "7")});
    server.expectSearch().answer(entry("cn=1"), rawOperation(Answer::searchEntry, "no BER"),
        entry("cn=2").attr("sAMAccountName", "b"), done());
    fetchUsers(*manager);
    users.waitForEnd();
    server.expectSearch().answer(done(32));
    fetchGroups(*manager);
    groups.waitForEnd();
    manager.reset();

    const std::string session = "tavo::ldap::Session(0x): ";
    const std::string context = "tavo::ldap::SearchContext(0x): ";
    const std::string impl = "tavo::ldap::(anonymous namespace)::ManagerImpl(0x): ";
    const std::string error = "5 tavo::ldap::BaseError(0x): ";
    EXPECT_THAT(linesOf(log),
        ElementsAre("6 " + impl +
                        "Init LDAP session with settings "
                        R"({"uri":"ldap://HOST","adminDn":"cn=admin","adminPassword":"******",)"
                        R"("searchTimeout":3,"responseTimeout":7,"startTls":false,)"
                        R"("ignoreCertificateErrors":false,"searchPageSize":2})",
            "5 " + session + "Creating for ldap://HOST",
            "5 " + context + "Created for [] with [] filter (attributes: none)",
            "6 " + context + "Performing non-paged search", "6 " + context + "Found 1 entries",
            "6 " + session + "Binding to [cn=admin]...", "5 " + session + "Bound to [cn=admin]",
            "5 " + context + "Created for [dc=x] with [" + kActiveDirectoryUsers +
                "] filter (attributes: { displayName, gecos, mail, sAMAccountName })",
            "6 " + context + "Getting page 1 (cookie size: 0)",
            "6 " + context + "Polling message id 3 for page 1", error + "ldap_get_dn: Decoding error",
            "5 tavo::ldap::SearchResponse(0x): Search entry handling error: ldap_get_dn: Decoding error",
            "6 " + context + "Found 2 entries on page 1",
            "3 " + context + "Entries whose DN can't be read are left out of page 1: 1.",
            "5 tavo::ldap::Cookie(0x): Page control not found",
            "3 " + context +
                "Entries may be missing: page 1 is full (2 entries asked for) but came without the server's "
                "page "
                "control, which ends the search below [dc=x] with filter [" +
                kActiveDirectoryUsers +
                "]; 2 entries were received. Check that the server supports paged results "
                "(1.2.840.113556.1.4.319) for this account.",
            "5 " + impl + "Ignoring entry with empty login: cn=1", "6 " + impl + "Found 1 users",
            "5 " + context + "Created for [dc=x] with [objectClass=group] filter (attributes: { member })",
            "6 " + context + "Getting page 1 (cookie size: 0)",
            "6 " + context + "Polling message id 4 for page 1",
            "5 " + context + "Search failed for [dc=x], matched DN []; the server says: []",
            error + "ldap_result: No such object",
            "3 " + impl + "Groups fetching error: No target object found."));
}

} // namespace

} // namespace tavo::test
