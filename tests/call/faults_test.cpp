// Whole fetches of users and groups, over and over, with another call of the client library failing each
// time.
#include "call_test.h"
#include "support/log_capture.h"
#include "support/scripted_server.h"
#include "support/threads_end_here.h"
#include <ldap/manager.h>
#include <ldap/tavo_ldap_ini.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <iterator>

namespace tavo::test {

namespace {

using ldap::Group;
using ldap::Manager;
using ldap::Result;
using ldap::Settings;
using ldap::User;

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// A function and the way in which it fails.
struct Fault
{
    std::string function;
    std::function<void(CallRecorder&, int nth)> inject;
    /// The password to bind with: one call is made for a special one alone.
    QString password = QStringLiteral("secret");
    /// What each of these failures leaves in the log.
    std::string logged = {};
    /// Lines of which at least one is in the log when the list is not whole and the end is `ok` all the same.
    /// Without any, `ok` means the whole list.
    std::vector<std::string> shortened = {};
    /// Whether a failure makes an attribute look as if the entry lacked it, which no line tells.
    bool hidesValues = false;
    /// The line that stands in place of a final call when the last page fails.
    std::string lostEnd = {};
};

void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.function; }

template <class R, class... A>
Fault fault(std::string name, R (*function)(A...), std::type_identity_t<R> result, int error)
{
    return {std::move(name), [=](CallRecorder& recorder, int nth) {
                recorder.fail(function, result, {.nth = nth, .error = error});
            }};
}

#define TAVO_FAULT(function, result, error) fault(#function, function, result, error)

Fault withPassword(QString password, Fault fault)
{
    fault.password = std::move(password);
    return fault;
}

Fault isLogged(std::string line, Fault fault)
{
    fault.logged = std::move(line);
    return fault;
}

Fault shortensTheList(std::vector<std::string> lines, Fault fault)
{
    fault.shortened = std::move(lines);
    return fault;
}

Fault hidesValues(Fault fault)
{
    fault.hidesValues = true;
    return fault;
}

Fault losesTheLastPage(std::string line, Fault fault)
{
    fault.lostEnd = std::move(line);
    return fault;
}

/// The real one has emptied the value when it has no memory for it.
Fault copyFault()
{
    return {"ber_mem2bv", [](CallRecorder& recorder, int nth) {
                const auto left = std::make_shared<std::atomic<int>>(nth);
                recorder.replace(
                    ber_mem2bv, [left](const char* text, ber_len_t length, int duplicate, berval* copy) {
                        if (--*left != 0)
                            return CallRecorder::real(ber_mem2bv)(text, length, duplicate, copy);
                        *copy = {length, nullptr};
                        errno = ENOMEM;
                        return static_cast<berval*>(nullptr);
                    });
            }};
}

using Rows = std::vector<std::string>;

std::string row(const User& user)
{
    return user.dn.toStdString() + ": " + user.login.toStdString() + ", " + user.fullName.toStdString();
}

std::string row(const Group& group)
{
    std::string text = group.dn.toStdString() + ": " + group.name.toStdString();
    for (const auto& member : group.members)
        text += ", " + member.toStdString();
    return text;
}

/// The DNs alone.
Rows withoutValues(Rows rows)
{
    for (auto& row : rows)
        row.erase(row.find(':'));
    return rows;
}

/// How a fetch ended that nobody stopped.
struct Outcome
{
    bool isStarted = false;
    std::vector<Result> finalCalls;
    Rows rows;
};

/// Everything that `start` brings about; no thread of it is left.
template <class Item, class Start>
Outcome fetch(Start start)
{
    struct State
    {
        std::mutex mutex;
        Outcome outcome;
    };
    const auto state = std::make_shared<State>();
    const auto handler = [state](Result result, std::vector<Item> items) {
        const std::lock_guard lock(state->mutex);
        for (const auto& item : items)
            state->outcome.rows.push_back(row(item));
        if (result != Result::moreResults)
            state->outcome.finalCalls.push_back(result);
    };
    bool isStarted = false;
    try {
        const ThreadsEndHere threadOfTheSearch;
        start(handler);
        isStarted = true;
    } catch (const ldap::BaseError&) {
    }
    const std::lock_guard lock(state->mutex);
    state->outcome.isStarted = isStarted;
    return state->outcome;
}

Outcome fetchUsers(Manager& manager)
{
    return fetch<User>([&](auto handler) { manager.fetchUsersAsync(handler, {}); });
}

Outcome fetchGroups(Manager& manager)
{
    return fetch<Group>([&](auto handler) { manager.fetchGroupsAsync(handler, {}); });
}

/// Directories of two entries on a page: of users the last page is not full, of groups it is.
const Rows kUsers{"uid=0: 0, Name 0", "uid=1: 1, Name 1", "uid=2: 2, Name 2", "uid=3: 3, 3", "uid=4: 4, 4"};
const Rows kGroups{"cn=0: 0, uid=0, uid=1", "cn=1: 1, uid=0, uid=1", "cn=2: 2, uid=0, uid=1",
    "cn=3: 3, uid=0, uid=1", "cn=4: 4, uid=0, uid=1", "cn=5: 5, uid=0, uid=1"};

/// The name of some users is to be made of their DN.
Entry user(int number)
{
    const auto name = std::to_string(number);
    auto user = entry("uid=" + name).attr("uid", name);
    return number < 3 ? user.attr("displayName", "Name " + name) : user;
}

Entry group(int number) { return entry("cn=" + std::to_string(number)).attr("member", {"uid=0", "uid=1"}); }

class EveryCall : public ::testing::TestWithParam<Fault>
{
protected:
    EveryCall()
    {
        ldap::ini().logResponseReferences = true;
        server.otherwise([](const Request& request) -> Steps {
            if (!request.is<SearchRequest>())
                return success();
            const auto page = pageRequested(request);
            if (!page)
                return {entry("").attr("vendorName", "nobody's"), done()};
            const int first = page->cookie.empty() ? 0 : std::stoi(page->cookie);
            const bool isOfUsers = request.as<SearchRequest>().filter.find("groupOfNames") == Bytes::npos;
            return pageFrom(first, isOfUsers);
        });
        settings.uri = utils::Url(QString::fromStdString(server.url()));
        settings.startTls = true;
        settings.adminDn = "cn=admin"_s;
        settings.adminPassword = GetParam().password;
        settings.searchPageSize = 2;
    }

    ~EveryCall() override { ldap::ini().logResponseReferences = false; }

    static Steps pageFrom(int first, bool isOfUsers)
    {
        const int count = static_cast<int>(std::size(isOfUsers ? kUsers : kGroups));
        const int end = std::min(first + 2, count);
        Steps steps = reference({"ldap://127.0.0.1:1/"});
        for (int i = first; i < end; ++i)
            steps.append(isOfUsers ? user(i) : group(i));
        steps.append(reference({"ldap://127.0.0.1:2/"}));
        steps.append(done().page(end < count ? std::to_string(end) : ""));
        return steps;
    }

    static void prepare(CallRecorder& recorder)
    {
        // The root DSE is read with all its attributes.
        recorder.mayKeepAttributeIterators();
        recorder.replace(ldap_start_tls_s, [](LDAP*, LDAPControl**, LDAPControl**) { return LDAP_SUCCESS; });
    }

    /// Null when it can't be made.
    std::unique_ptr<Manager> makeManager() const
    {
        try {
            return ldap::createManagerOrThrow(settings);
        } catch (const ldap::BaseError&) {
            return nullptr;
        }
    }

    /// What one fetch of each kind calls of the function; the manager and everything else is gone afterwards.
    std::size_t callsWithoutFault() const
    {
        CallRecorder recorder;
        prepare(recorder);
        const auto manager = ldap::createManagerOrThrow(settings);
        expectWhole(fetchUsers(*manager), kUsers);
        expectWhole(fetchGroups(*manager), kGroups);
        return recorder.count(GetParam().function);
    }

    static void expectWhole(const Outcome& outcome, const Rows& all)
    {
        EXPECT_TRUE(outcome.isStarted);
        EXPECT_THAT(outcome.finalCalls, ElementsAre(Result::ok));
        EXPECT_EQ(outcome.rows, all);
    }

    /// One exception, one final call, or the one line that stands for it; and `ok` for a whole list, or for
    /// one of which the log tells that it isn't.
    static void expectDefinedEnd(const Outcome& outcome, const Rows& all, const LogCapture& log)
    {
        const auto& fault = GetParam();
        if (!outcome.isStarted) {
            EXPECT_THAT(outcome.finalCalls, IsEmpty());
            return;
        }
        if (outcome.finalCalls.empty()) {
            ASSERT_FALSE(fault.lostEnd.empty()) << "no final call";
            EXPECT_THAT(log.texts(log::Level::warning), Contains(HasSubstr(fault.lostEnd)));
            return;
        }
        EXPECT_THAT(outcome.finalCalls, ElementsAre(AnyOf(Result::ok, Result::connectError)));
        if (outcome.finalCalls.front() == Result::ok)
            expectWholeOrTold(outcome.rows, all, log);
    }

    static void expectWholeOrTold(Rows rows, Rows all, const LogCapture& log)
    {
        const auto& fault = GetParam();
        if (fault.hidesValues) {
            rows = withoutValues(std::move(rows));
            all = withoutValues(std::move(all));
        }
        if (fault.shortened.empty() || rows == all) {
            EXPECT_EQ(rows, all) << "an incomplete list is taken for complete";
            return;
        }
        EXPECT_TRUE(std::any_of(fault.shortened.begin(), fault.shortened.end(), [&](const auto& line) {
            return log.contains(line);
        })) << "nothing in the log tells that the list is incomplete";
        EXPECT_TRUE(std::includes(all.begin(), all.end(), rows.begin(), rows.end()))
            << "more is wrong than that entries are missing: " << ::testing::PrintToString(rows);
    }

    ScriptedServer server;
    Settings settings;
};

TEST_P(EveryCall, MayFailAndTheFetchEndsOnceLeavingNothingBehind)
{
    const auto calls = callsWithoutFault();
    ASSERT_GT(calls, 0U);
    RecordProperty("faults", static_cast<int>(calls));
    for (int nth = 1; nth <= static_cast<int>(calls); ++nth) {
        SCOPED_TRACE(GetParam().function + " fails, call " + std::to_string(nth));
        const LogCapture log;
        {
            // Reports what is not freed, or freed twice, when it goes.
            CallRecorder recorder;
            prepare(recorder);
            GetParam().inject(recorder, nth);
            auto manager = makeManager();
            if (manager) {
                expectDefinedEnd(fetchUsers(*manager), kUsers, log);
                expectDefinedEnd(fetchGroups(*manager), kGroups, log);
            } else {
                manager = makeManager();
            }
            // One failed call is not the end of a session.
            ASSERT_TRUE(manager);
            expectWhole(fetchUsers(*manager), kUsers);
            expectWhole(fetchGroups(*manager), kGroups);
        }
        EXPECT_TRUE(log.contains(GetParam().logged));
    }
}

// Those that can't fail are left out: they only free, or ask for what is there. What makes a list shorter
// than the directory, or an entry poorer, is a failure that looks like an answer:
// - no first and no next entry is the end of a page, which the log tells to be too short, or how short the
// last
//   one is;
// - no page control is that of a server that doesn't know of pages;
// - an entry without a DN is left out with a line;
// - an attribute without values is one that the entry lacks. A user without a login is left out with a line.
INSTANTIATE_TEST_SUITE_P(ClientLibrary, EveryCall,
    ::testing::Values(withPassword("sec\0ret"_s, copyFault()), TAVO_FAULT(ber_sockbuf_add_io, -1, ENOMEM),
        TAVO_FAULT(ber_strdup, nullptr, ENOMEM),
        shortensTheList({"Page control not found"}, TAVO_FAULT(ldap_control_find, nullptr, 0)),
        TAVO_FAULT(ldap_create_page_control, LDAP_NO_MEMORY, ENOMEM),
        isLogged("Error destroying ldap: ", TAVO_FAULT(ldap_destroy, LDAP_OTHER, EIO)),
        TAVO_FAULT(ldap_dup, nullptr, ENOMEM), TAVO_FAULT(ldap_first_attribute, nullptr, ENOMEM),
        shortensTheList(
            {"Entries are missing", "Found 0 entries on page 3"}, TAVO_FAULT(ldap_first_entry, nullptr, 0)),
        TAVO_FAULT(ldap_first_reference, nullptr, 0),
        isLogged("Search entry handling error: ldap_get_dn",
            shortensTheList(
                {"Search entry handling error: ldap_get_dn"}, TAVO_FAULT(ldap_get_dn, nullptr, ENOMEM))),
        TAVO_FAULT(ldap_get_option, LDAP_OPT_ERROR, 0),
        hidesValues(shortensTheList(
            {"Ignoring entry with empty login"}, TAVO_FAULT(ldap_get_values_len, nullptr, ENOMEM))),
        TAVO_FAULT(ldap_initialize, LDAP_NO_MEMORY, ENOMEM), TAVO_FAULT(ldap_next_attribute, nullptr, ENOMEM),
        shortensTheList(
            {"Entries are missing", "Found 1 entries on page 3"}, TAVO_FAULT(ldap_next_entry, nullptr, 0)),
        TAVO_FAULT(ldap_next_reference, nullptr, 0),
        TAVO_FAULT(ldap_parse_pageresponse_control, LDAP_DECODING_ERROR, 0),
        isLogged("Failed to parse LDAP reference entry: Decoding error",
            TAVO_FAULT(ldap_parse_reference, LDAP_DECODING_ERROR, 0)),
        TAVO_FAULT(ldap_parse_result, LDAP_DECODING_ERROR, 0),
        losesTheLastPage(
            "was lost in its handler: ldap_rdn2str()", TAVO_FAULT(ldap_rdn2str, LDAP_NO_MEMORY, ENOMEM)),
        TAVO_FAULT(ldap_result, -1, ECONNRESET), TAVO_FAULT(ldap_sasl_bind_s, LDAP_SERVER_DOWN, ECONNRESET),
        TAVO_FAULT(ldap_search_ext, LDAP_SERVER_DOWN, EPIPE),
        isLogged("Detect LDAP vendor error: ", TAVO_FAULT(ldap_search_ext_s, LDAP_SERVER_DOWN, ECONNRESET)),
        TAVO_FAULT(ldap_set_option, LDAP_OPT_ERROR, 0),
        TAVO_FAULT(ldap_start_tls_s, LDAP_CONNECT_ERROR, ECONNREFUSED),
        losesTheLastPage(
            "was lost in its handler: ldap_str2dn()", TAVO_FAULT(ldap_str2dn, LDAP_NO_MEMORY, ENOMEM))),
    [](const auto& fault) { return fault.param.function; });

} // namespace

} // namespace tavo::test
