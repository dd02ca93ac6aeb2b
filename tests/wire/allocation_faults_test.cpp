// Whole fetches of users, over and over, with another allocation of the library, or of Qt for it, failing
// each time.
#include "support/gate.h"
#include "support/sanitized.h"
#include "support/scripted_server.h"
#include "support/threads_end_here.h"
#include <ldap/manager.h>
#include <ldap/session.h>
#include <tavo_utils/log.h>

#include <gmock/gmock.h>
#include <ldap.h>

#include <link.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <variant>

namespace {

/// Counts down with each allocation of the library; the one that makes it 0 fails.
std::atomic<long> allocationsLeft{0};
std::atomic<long> allocationsMade{0};
/// Those among them that Qt makes without `new`.
std::atomic<long> allocationsOfQt{0};
/// The test's own work, and that of its server, doesn't count.
thread_local int exempt = 0;

bool mayAllocate()
{
    if (exempt != 0)
        return true;
    ++allocationsMade;
    return --allocationsLeft != 0;
}

void* allocate(std::size_t size) { return mayAllocate() ? std::malloc(size == 0 ? 1 : size) : nullptr; }

struct Exempt
{
    Exempt() { ++exempt; }
    ~Exempt() { --exempt; }
    Exempt(const Exempt&) = delete;
    Exempt& operator=(const Exempt&) = delete;
};

} // namespace

// Not inlined, or the compiler sees a new expression end in free().
[[gnu::noinline]] void* operator new(std::size_t size)
{
    if (void* memory = allocate(size))
        return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

// A sanitizer's own functions are needed in their place.
#if !TAVO_SANITIZED

namespace {

/// Where Qt's code is, as soon as somebody wants to know.
std::atomic<std::uintptr_t> qtBegin{0};
std::atomic<std::uintptr_t> qtEnd{0};

int findQt(dl_phdr_info* object, std::size_t, void*)
{
    if (std::string_view(object->dlpi_name).find("/libQt6Core.so") == std::string_view::npos)
        return 0;
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const auto& segment = object->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) {
            qtBegin = object->dlpi_addr + segment.p_vaddr;
            qtEnd = qtBegin + segment.p_memsz;
        }
    }
    return 1;
}

/// Whether this allocation fails that returns to `caller`.
bool failsFor(const void* caller)
{
    const auto address = reinterpret_cast<std::uintptr_t>(caller);
    if (exempt != 0 || address < qtBegin || address >= qtEnd)
        return false;
    ++allocationsOfQt;
    if (mayAllocate())
        return false;
    errno = ENOMEM;
    return true;
}

} // namespace

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

[[gnu::noinline]] void* malloc(std::size_t size) noexcept
{
    return failsFor(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

[[gnu::noinline]] void* calloc(std::size_t count, std::size_t size) noexcept
{
    return failsFor(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}

[[gnu::noinline]] void* realloc(void* memory, std::size_t size) noexcept
{
    return failsFor(__builtin_return_address(0)) ? nullptr : __libc_realloc(memory, size);
}
}

#endif

namespace tavo::test {

namespace {

using ldap::Manager;
using ldap::Result;
using ldap::Settings;
using ldap::User;

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

/// Runs the library's code in the middle of the test's.
template <class Function>
auto inLibrary(Function function)
{
    struct Restore
    {
        int former = std::exchange(exempt, 0);
        ~Restore() { exempt = former; }
    } restore;
    return function();
}

/// What is logged while it lives, down to the last detail, at nobody's expense.
class Lines
{
public:
    Lines()
        : m_formerLevel(log::maxLevel())
        , m_formerReducer(log::reducerConfig())
        , m_formerSink(log::setSink([this](log::Level, const QString&, const QString& text) { add(text); }))
    {
        log::setReducerConfig({.period = m_formerReducer.period, .limit = 0});
        log::setMaxLevel(log::Level::verbose);
    }
    ~Lines()
    {
        log::setMaxLevel(m_formerLevel);
        log::setReducerConfig(m_formerReducer);
        log::setSink(std::move(m_formerSink));
    }
    Lines(const Lines&) = delete;
    Lines& operator=(const Lines&) = delete;

    std::vector<std::string> take()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_texts, {});
    }

private:
    void add(const QString& text)
    {
        const Exempt ownWork;
        const std::lock_guard lock(m_mutex);
        m_texts.push_back(text.toStdString());
    }

    std::mutex m_mutex;
    std::vector<std::string> m_texts;
    log::Level m_formerLevel;
    log::ReducerConfig m_formerReducer;
    log::Sink m_formerSink;
};

const std::vector<std::string> kUsers{"uid=a: a, Name", "uid=b: b, Name", "uid=c: c, c"};
constexpr std::size_t kUsersOnTheFirstPage = 2;

/// What a fetch has brought about so far.
class Fetch
{
public:
    struct Outcome
    {
        std::vector<Result> finalCalls;
        std::vector<std::string> users;
    };

    /// Nobody but the library pays for what it does; no thread is left afterwards.
    /// \return whether it could be started
    bool run(Manager& manager)
    {
        const ThreadsEndHere threadOfTheSearch;
        return start(manager);
    }

    bool start(Manager& manager)
    {
        const auto handler = [this](Result result, std::vector<User> users) { add(result, users); };
        try {
            inLibrary([&] { return manager.fetchUsersAsync(handler, {}); });
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    Outcome outcome() const
    {
        const std::lock_guard lock(m_mutex);
        return m_outcome;
    }

private:
    void add(Result result, const std::vector<User>& users)
    {
        const Exempt ownWork;
        const std::lock_guard lock(m_mutex);
        for (const auto& user : users) {
            m_outcome.users.push_back(
                user.dn.toStdString() + ": " + user.login.toStdString() + ", " + user.fullName.toStdString());
        }
        if (result != Result::moreResults)
            m_outcome.finalCalls.push_back(result);
    }

    mutable std::mutex m_mutex;
    Outcome m_outcome;
};

void expectWhole(Manager& manager)
{
    Fetch fetch;
    EXPECT_TRUE(fetch.run(manager));
    EXPECT_THAT(fetch.outcome().finalCalls, ElementsAre(Result::ok));
    EXPECT_EQ(fetch.outcome().users, kUsers);
}

class EveryAllocation : public ::testing::Test
{
protected:
    EveryAllocation()
    {
#if !TAVO_SANITIZED
        dl_iterate_phdr(&findQt, nullptr);
#endif
        server.otherwise([](const Request& request) -> Steps {
            // This thread is the server's, and nobody else's.
            exempt = 1;
            if (!request.is<SearchRequest>())
                return success();
            const auto page = pageRequested(request);
            if (!page)
                return {entry("").attr("vendorName", "nobody's"), done()};
            if (page->cookie.empty())
                return {user("a"), user("b"), done().page("more")};
            return {entry("uid=c").attr("uid", "c"), done().page("")};
        });
        settings.uri = utils::Url(QString::fromStdString(server.url()));
        settings.adminDn = QStringLiteral("cn=admin");
        settings.adminPassword = QStringLiteral("secret");
        settings.searchPageSize = 2;
    }

    static Entry user(const std::string& name)
    {
        return entry("uid=" + name).attr("uid", name).attr("displayName", "Name");
    }

    /// Null when there is no memory for it.
    std::unique_ptr<Manager> makeManager() const
    {
        try {
            return inLibrary([&] { return ldap::createManagerOrThrow(settings); });
        } catch (const std::bad_alloc&) {
        } catch (const ldap::BaseError&) {
        }
        return nullptr;
    }

    static void startCounting()
    {
        allocationsMade = 0;
        allocationsOfQt = 0;
    }

    /// How many have been made since; as it is known how many the library, and Qt for it, need at least, none
    /// goes unseen.
    static long counted(long ofLibraryAtLeast, long ofQtAtLeast)
    {
        const long all = allocationsMade;
        const long ofQt = allocationsOfQt;
        RecordProperty("faults", static_cast<int>(all));
        RecordProperty("faultsOfQt", static_cast<int>(ofQt));
        EXPECT_GE(all - ofQt, ofLibraryAtLeast);
        EXPECT_GE(ofQt, sanitized ? 0 : ofQtAtLeast) << "the allocations of Qt are not found";
        return all;
    }

    const Exempt ownWork;
    ScriptedServer server;
    Settings settings;
};

/// One final call, `ok` only with all users; or none because an exception, of which the log tells, has ended
/// the search. \return whether there was one
bool expectDefinedEnd(const Fetch::Outcome& outcome, const std::vector<std::string>& log)
{
    if (outcome.finalCalls.empty()) {
        EXPECT_THAT(log, Contains(HasSubstr("was ended by an exception: std::bad_alloc")));
        return false;
    }
    EXPECT_THAT(outcome.finalCalls, ElementsAre(AnyOf(Result::ok, Result::connectError)));
    if (outcome.finalCalls.front() == Result::ok) {
        EXPECT_EQ(outcome.users, kUsers) << "an incomplete list is taken for complete";
    }
    return true;
}

/// What is still due from a search that an exception has ended: that it is cancelled with its session, but
/// for the last page, which is turned into users when the search has ended and lets nobody be told any more.
void expectCancelled(const Fetch::Outcome& outcome)
{
    if (outcome.users.size() < kUsersOnTheFirstPage) {
        EXPECT_THAT(outcome.finalCalls, ElementsAre(Result::cancelled));
    } else {
        EXPECT_THAT(outcome.finalCalls, AnyOf(IsEmpty(), ElementsAre(Result::cancelled)));
    }
}

TEST_F(EveryAllocation, MayFailAndTheFetchEndsAtMostOnceAndNeverLooksComplete)
{
    Lines log;
    allocationsLeft = 0;
    expectWhole(*makeManager());
    startCounting();
    expectWhole(*makeManager());
    const long allocations = counted(20, 20);

    for (long nth = 1; nth <= allocations; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        log.take();
        Fetch fetch;
        allocationsLeft = nth;
        auto manager = makeManager();
        const bool isStarted = manager && fetch.run(*manager);
        allocationsLeft = 0;
        const bool hasEnded = isStarted && expectDefinedEnd(fetch.outcome(), log.take());

        if (!manager)
            manager = makeManager();
        ASSERT_TRUE(manager);
        expectWhole(*manager);

        const auto finalCalls = fetch.outcome().finalCalls;
        manager.reset();
        if (isStarted && !hasEnded) {
            expectCancelled(fetch.outcome());
        } else {
            EXPECT_EQ(fetch.outcome().finalCalls, finalCalls);
            EXPECT_EQ(finalCalls.size(), isStarted ? 1U : 0U);
        }
    }
}

/// The error of a bind that the server refuses with the password in its text, and what is logged.
std::vector<std::string> wordsOfARefusedBind(const ScriptedServer& server, Lines& log)
{
    ldap::Session session(utils::Url(QString::fromStdString(server.url())), false, false);
    const QString dn = QStringLiteral("cn=admin");
    const QString password = QStringLiteral("c4nary");
    log.take();
    std::string message;
    try {
        inLibrary([&] { session.bind(dn, password); });
    } catch (const ldap::BaseError& error) {
        message = error.serverMessage.toStdString() + error.matchedDn.toStdString();
    } catch (const std::bad_alloc&) {
    }
    allocationsLeft = 0;
    std::vector<std::string> words = log.take();
    words.push_back(message);
    return words;
}

TEST_F(EveryAllocation, MayFailAndAPasswordInTheServersTextIsWithheld)
{
    server.otherwise([](const Request&) -> Steps {
        exempt = 1;
        return result(LDAP_INVALID_CREDENTIALS).diagnostic("you said c4nary").matched("cn=c4nary");
    });
    Lines log;
    allocationsLeft = 0;
    wordsOfARefusedBind(server, log);
    startCounting();
    EXPECT_THAT(wordsOfARefusedBind(server, log), Contains(HasSubstr("withheld")));
    const long allocations = counted(1, 5);

    for (long nth = 1; nth <= allocations; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        allocationsLeft = nth;
        EXPECT_THAT(wordsOfARefusedBind(server, log), Each(Not(HasSubstr("c4nary"))));
    }
}

/// A server whose users all come on one page, and what the library allocates to fetch them.
class AllocationsOfAPage : public EveryAllocation
{
protected:
    long countFor(int users)
    {
        server.otherwise([users](const Request& request) -> Steps {
            exempt = 1;
            if (!request.is<SearchRequest>())
                return success();
            if (!pageRequested(request))
                return done();
            Steps page;
            for (int i = 0; i < users; ++i) {
                const std::string name = "user" + std::to_string(i);
                page.append(user(name).attr("mail", name + "@example.com"));
            }
            page.append(done().page(""));
            return page;
        });
        settings.searchPageSize = 1000;
        const auto manager = makeManager();
        Fetch fetch;
        startCounting();
        EXPECT_TRUE(fetch.run(*manager));
        EXPECT_EQ(fetch.outcome().users.size(), static_cast<std::size_t>(users));
        return counted(20, 20);
    }
};

TEST_F(AllocationsOfAPage, AreForAUserTheDnTheValuesAndTheirLists)
{
    allocationsLeft = 0;
    constexpr int kFew = 100;
    constexpr int kMany = 300;
    const long few = countFor(kFew);
    const long many = countFor(kMany);

    // The DN, three values with a list for each, and the list of the attributes. The larger page takes a few
    // more for itself.
    EXPECT_LE(many - few, 8 * (kMany - kFew) + 5);
}

/// Formats each message as Qt's own handler does, and drops it.
void formatAndDrop(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    qFormatLogMessage(type, context, text);
}

TEST_F(EveryAllocation, MayFailInQtsLoggerAndOnlyThatLineIsLost)
{
    const auto formerHandler = qInstallMessageHandler(&formatAndDrop);
    const auto logALine = [this] {
        inLibrary([this] { TAVO_LOG_WARNING(log::tag(settings), u"Something is wrong with %1", u"it"); });
    };
    allocationsLeft = 0;
    logALine();
    startCounting();
    logALine();
    const long allocations = counted(0, 1);

    for (long nth = 1; nth <= allocations; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        allocationsLeft = nth;
        EXPECT_NO_THROW(logALine());
        allocationsLeft = 0;
    }
    qInstallMessageHandler(formerHandler);
}

/// A server that answers a search when it is told to.
class SlowServer
{
public:
    SlowServer()
    {
        server.otherwise([answer = answer](const Request& request) -> Steps {
            exempt = 1;
            if (!request.is<SearchRequest>())
                return success();
            if (!pageRequested(request))
                return done();
            return {waitFor(answer), done().page("")};
        });
    }

    Gate answer;
    ScriptedServer server;
};

TEST_F(EveryAllocation, MayFailAsTheManagerEndsAndItsSearchIsCancelledOnce)
{
    const Lines log;
    const auto goWithASearch = [this](long nth) {
        SlowServer slow;
        settings.uri = utils::Url(QString::fromStdString(slow.server.url()));
        Fetch fetch;
        const ThreadsEndHere threadOfTheSearch;
        auto manager = ldap::createManagerOrThrow(settings);
        fetch.start(*manager);
        slow.server.waitForRequests(3);
        startCounting();
        allocationsLeft = nth;
        inLibrary([&] { manager.reset(); });
        allocationsLeft = 0;
        EXPECT_THAT(fetch.outcome().finalCalls, ElementsAre(Result::cancelled));
        slow.answer.open();
    };
    goWithASearch(0);
    const long allocations = counted(1, 5);

    for (long nth = 1; nth <= allocations; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        goWithASearch(nth);
    }
}

/// All pages or a failure; whatever else ends the wait ends the test.
std::variant<Result, std::vector<ldap::SearchEntry>> waitForAllPages(ldap::Session& session)
{
    ldap::SearchParams params{QStringLiteral("dc=x"), {}, {"uid"}, ldap::SearchScope::subtree};
    return inLibrary([&] { return session.search(std::move(params), 2); });
}

void expectAllPages(ldap::Session& session)
{
    EXPECT_EQ(std::get<std::vector<ldap::SearchEntry>>(waitForAllPages(session)).size(), 3U);
}

TEST_F(EveryAllocation, MayFailAndABlockingSearchReturnsAllOrAFailure)
{
    const auto createSession = [this] { return std::make_unique<ldap::Session>(settings.uri, false, false); };
    const Lines log;
    allocationsLeft = 0;
    {
        const auto session = createSession();
        expectAllPages(*session);
        startCounting();
        expectAllPages(*session);
    }
    const long allocations = counted(20, 20);

    int failed = 0;
    for (long nth = 1; nth <= allocations; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        const auto session = createSession();
        const ThreadsEndHere threadOfTheSearch;
        allocationsLeft = nth;
        const auto outcome = waitForAllPages(*session);
        allocationsLeft = 0;
        if (const auto* const failure = std::get_if<Result>(&outcome)) {
            ++failed;
            EXPECT_EQ(*failure, Result::connectError);
        } else {
            EXPECT_EQ(std::get<std::vector<ldap::SearchEntry>>(outcome).size(), 3U);
        }
        expectAllPages(*session);
    }
    EXPECT_GT(failed, 0);
}

} // namespace

} // namespace tavo::test
