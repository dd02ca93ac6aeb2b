// A server that sends anything, and the paged search that reads it: entries, cookies, records, JSON.

#include "fuzzed_server.h"
#include "invariant.h"
#include "parsed_json.h"
#include "process_setup.h"
#include <ldap/manager.h>
#include <ldap/session.h>
#include <ldap/tavo_ldap_ini.h>

#include <algorithm>
#include <future>
#include <optional>

namespace tavo::fuzz {

namespace {

using ldap::Group;
using ldap::Result;
using ldap::SearchEntry;
using ldap::User;

void checkRecord(const User& user)
{
    const rapidjson::Document object = parsedObject(user.toString());
    require(object.MemberCount() == 4, "a user has four members");
    require(holds(object, "dn", user.dn), "the DN survives JSON");
    require(holds(object, "login", user.login), "the login survives JSON");
    require(holds(object, "fullName", user.fullName), "the name survives JSON");
    require(holds(object, "email", user.email), "the address survives JSON");
    require(user.email == user.email.trimmed(), "an address is trimmed");
    require(user.fullName == user.fullName.trimmed(), "a name is trimmed");
}

void checkRecord(const Group& group)
{
    const rapidjson::Document object = parsedObject(group.toString());
    require(object.MemberCount() == 3, "a group has three members");
    require(holds(object, "dn", group.dn), "the DN survives JSON");
    require(holds(object, "name", group.name), "the name survives JSON");
    const auto members = object["members"].GetArray();
    require(std::equal(members.begin(), members.end(), group.members.begin(), group.members.end(), &isText),
        "the members survive JSON");
}

void checkRecord(SearchEntry entry)
{
    require(!entry.toString().isEmpty(), "an entry has a text");
    try {
        checkRecord(User::fromSearchEntry(std::move(entry), "uid"));
    } catch (const ldap::BaseError&) {
        // Its DN can't be parsed.
    }
}

/// The calls of a fetch's handler so far.
struct Calls
{
    int intermediate = 0;
    int final = 0;
};

/// A handler that counts and checks its calls, and signals its destruction, after which no call can come.
template <class Record>
class Handler
{
public:
    Handler(Calls& calls, std::promise<void> gone, std::optional<std::size_t> leastPage)
        : m_calls(calls)
        , m_leastPage(leastPage)
        , m_gone(std::move(gone))
    {}

    void operator()(Result result, std::vector<Record> records)
    {
        require(m_calls.final == 0, "no call after the final one");
        if (result == Result::moreResults) {
            ++m_calls.intermediate;
            require(!m_leastPage || records.size() >= *m_leastPage, "an intermediate call holds a full page");
        } else {
            ++m_calls.final;
            require(result == Result::ok || records.empty(), "a failure holds no records");
        }
        for (Record& record : records) {
            checkRecord(std::move(record));
        }
    }

private:
    class Gone
    {
    public:
        explicit Gone(std::promise<void> promise)
            : m_promise(std::make_unique<std::promise<void>>(std::move(promise)))
        {}
        Gone(Gone&&) = default;
        ~Gone()
        {
            if (m_promise) {
                m_promise->set_value();
            }
        }

    private:
        std::unique_ptr<std::promise<void>> m_promise;
    };

    Calls& m_calls;
    std::optional<std::size_t> m_leastPage;
    Gone m_gone;
};

/// How one input is to be read: its first two bytes.
struct Plan
{
    Plan(unsigned char flags, unsigned char size)
        : isRaw((flags & 1U) != 0)
        , comesInSingleBytes((flags & 2U) != 0)
        , isActiveDirectory((flags & 4U) != 0)
        , namesAttributes((flags & 8U) != 0)
        , kind((flags >> 4U) % 3)
        , pageSize(1 + size % 5)
    {}

    bool isRaw;
    bool comesInSingleBytes;
    bool isActiveDirectory;
    bool namesAttributes;
    unsigned kind;
    int pageSize;
};

const QString kUrl = QStringLiteral("ldap://directory.test");
const QString kBase = QStringLiteral("dc=x");

void searchEntries(const Plan& plan, Calls& calls)
{
    std::promise<void> promise;
    const std::future<void> gone = promise.get_future();
    ldap::Session session(utils::Url(kUrl), false, false);
    const std::vector<QByteArray> attributes =
        plan.namesAttributes ? std::vector<QByteArray>{"cn", "mail", "uid"} : std::vector<QByteArray>();
    session.asyncSearch({kBase, QStringLiteral("(cn=*)"), attributes, ldap::SearchScope::subtree},
        Handler<SearchEntry>(calls, std::move(promise), plan.pageSize), plan.pageSize);
    gone.wait();
}

ldap::Settings settings(const Plan& plan)
{
    ldap::Settings settings;
    settings.uri = utils::Url(kUrl);
    settings.searchPageSize = plan.pageSize;
    return settings;
}

void fetchUsers(const Plan& plan, Calls& calls)
{
    std::promise<void> promise;
    const std::future<void> gone = promise.get_future();
    const auto manager = ldap::createManagerOrThrow(settings(plan));
    manager->fetchUsersAsync(Handler<User>(calls, std::move(promise), std::nullopt), {kBase, {}});
    gone.wait();
}

void fetchGroups(const Plan& plan, Calls& calls)
{
    std::promise<void> promise;
    const std::future<void> gone = promise.get_future();
    const auto manager = ldap::createManagerOrThrow(settings(plan));
    // A group that vanishes while its members are read is missing from its page.
    manager->fetchGroupsAsync(Handler<Group>(calls, std::move(promise), std::nullopt), {kBase, {}});
    gone.wait();
}

/// Whether this asks for more of a group's members, between two pages.
bool asksForRange(const test::Request& request)
{
    const auto* const search = std::get_if<test::SearchRequest>(&request.operation);
    return search != nullptr && search->attributes.size() == 1 &&
           search->attributes[0].find(";range=") != test::Bytes::npos;
}

void checkRequests(std::vector<test::Request> requests, const Plan& plan, int intermediateCalls)
{
    requests.erase(std::remove_if(requests.begin(), requests.end(), &asksForRange), requests.end());
    const int count = static_cast<int>(requests.size());
    require(count >= 1 && count >= intermediateCalls && count <= intermediateCalls + 1,
        "one request for each page");
    for (const test::Request& request : requests) {
        const auto page = test::pageRequested(request);
        require(page && page->critical, "every request asks for a page, and insists");
        require(page->size == plan.pageSize, "every request asks for a page of the size that was asked for");
        require(
            page->cookie.empty() == (&request == &requests.front()), "a cookie comes with all but the first");
    }
}

void run(const Plan& plan, Bytes messages)
{
    Calls calls;
    lastPageWasLost() = false;
    FuzzedServer server(
        {std::move(messages), plan.isRaw, plan.comesInSingleBytes}, managerGreeting(plan.isActiveDirectory));
    switch (plan.kind) {
    case 0:
        searchEntries(plan, calls);
        break;
    case 1:
        fetchUsers(plan, calls);
        break;
    default:
        fetchGroups(plan, calls);
    }
    server.waitForClose();
    // A manager that can't name the groups of a last page can report that only in the log.
    require(calls.final == (lastPageWasLost() ? 0 : 1), "exactly one final call");
    require(plan.kind != 0 || !lastPageWasLost(), "a handler that doesn't throw gets its last page");
    require(server.understands(), "every request is well-formed");
    checkRequests(server.requests(), plan, calls.intermediate);
}

} // namespace

} // namespace tavo::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    tavo::fuzz::setUpProcess();
    tavo::ldap::ini().logResponseReferences = true;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::size_t kPlanSize = 2;
    if (size < kPlanSize) {
        return -1;
    }
    const char* text = reinterpret_cast<const char*>(data);
    tavo::fuzz::run({data[0], data[1]}, {text + kPlanSize, size - kPlanSize});
    return 0;
}
