#include "search_owner.h"

#include <ldap.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace tavo::stress {

namespace {

using namespace std::chrono_literals;
using ldap::Result;

/// A handler starts another search only while fewer than these are under way.
constexpr std::size_t kSearchesOfHandlers = 8;

/// Fewer than the searches that must end before an address may come back.
constexpr std::size_t kAddressesKept = 256;

const QString kBase = QStringLiteral("dc=example,dc=test");
const QString kPeopleFilter = QStringLiteral("(objectClass=inetOrgPerson)");
const QString kGroupFilter = QStringLiteral("(objectClass=groupOfNames)");

int anyPageSize(Dice& dice) { return dice.oneOf({5, 13, 40, 60, 120, 500}); }

bool asksForPeople(Dice& dice) { return dice.chance(60); }

ldap::SearchParams paramsFor(bool people)
{
    return {kBase, people ? kPeopleFilter : kGroupFilter, {people ? "uid" : "cn", "member"},
        ldap::SearchScope::subtree};
}

int countOf(bool people) { return people ? Directory::people : Directory::groups; }

template <class Record>
std::vector<QString> dnsOf(const std::vector<Record>& records)
{
    std::vector<QString> dns;
    dns.reserve(records.size());
    for (const Record& record : records) {
        dns.push_back(record.dn);
    }
    return dns;
}

/// The handler of a search with a context of its own. It may outlive the session and doesn't use it.
class ContextHandler
{
public:
    ContextHandler(Ledger& ledger, std::shared_ptr<Search> search, ldap::SearchContext& context)
        : m_ledger(ledger)
        , m_life(std::move(search))
        , m_context(context)
    {}

    void operator()(Result result, const std::vector<ldap::SearchEntry>& entries)
    {
        Search& search = m_life.search();
        const Search::Call call(search, result, dnsOf(entries));
        if (result != Result::moreResults) {
            return;
        }
        const int what = search.dice().below(100);
        if (what < 5) {
            m_ledger.count(Event::stopInCall);
            m_context.stopAsyncSearch();
        } else if (what < 10) {
            m_ledger.count(Event::throwInCall);
            m_ledger.count(Event::endedByForeignException);
            search.brokenOff();
            throw std::runtime_error("a handler's own");
        }
    }

private:
    Ledger& m_ledger;
    Search::HandlerLife m_life;
    ldap::SearchContext& m_context;
};

} // namespace

std::string Directory::ldif()
{
    std::string text;
    for (const char* const unit : {"people", "groups"}) {
        text += std::string("dn: ou=") + unit + ",dc=example,dc=test\nobjectClass: organizationalUnit\n\n";
    }
    for (int i = 0; i < people; ++i) {
        const std::string uid = "u" + std::to_string(i);
        text += "dn: uid=" + uid + ",ou=people,dc=example,dc=test\nobjectClass: inetOrgPerson\nuid: " + uid +
                "\ncn: Person " + uid + "\nsn: " + uid + "\nmail: " + uid + "@Example.TEST\n\n";
    }
    for (int i = 0; i < groups; ++i) {
        const std::string name = "g" + std::to_string(i);
        text += "dn: cn=" + name + ",ou=groups,dc=example,dc=test\nobjectClass: groupOfNames\ncn: " + name +
                "\nmember: uid=u" + std::to_string(i) + ",ou=people,dc=example,dc=test\n\n";
    }
    return text;
}

/// The handler of an owner's searches. Now and then does something unusual that a handler may do.
template <class Record>
class SearchOwner::Handler
{
public:
    Handler(std::shared_ptr<SearchOwner> owner, SearchPtr search)
        : m_owner(std::move(owner))
        , m_life(std::move(search))
    {}

    void operator()(Result result, std::vector<Record> records)
    {
        Search& search = m_life.search();
        const Search::Call call(search, result, dnsOf(records));
        if (result == Result::moreResults) {
            atPage(search);
        } else {
            atEnd(search);
        }
    }

private:
    void atPage(Search& search)
    {
        const int what = search.dice().below(100);
        if (what < 4) {
            m_owner->m_ledger.count(Event::forgetInCall);
            search.forgetInCall([this](ldap::SearchContext* context) { m_owner->forget(context); });
        } else if (what < 10) {
            startAnother(search);
        } else if (what < 11) {
            m_owner->m_ledger.count(Event::throwInCall);
            throw ldap::BaseError(LDAP_BUSY, QStringLiteral("handler"), 0);
        } else if (what < 12) {
            m_owner->m_ledger.count(Event::throwInCall);
            m_owner->m_ledger.count(Event::endedByForeignException);
            search.brokenOff();
            throw std::runtime_error("a handler's own");
        } else if (what < 20) {
            std::this_thread::yield();
        } else if (what < 25) {
            m_owner->stopLateInCall(search.dice());
        }
    }

    void atEnd(Search& search)
    {
        const int what = search.dice().below(100);
        if (what < 10) {
            startAnother(search);
        } else if (what < 15) {
            m_owner->endFromCall();
        } else if (what < 20) {
            m_owner->operateFromCall(search.dice());
        } else if (what < 21) {
            m_owner->m_ledger.count(Event::interruptInCall);
            m_owner->interrupt();
        } else if (what < 23) {
            m_owner->m_ledger.count(Event::throwInCall);
            throw std::runtime_error("a handler's last");
        }
    }

    void startAnother(Search& search)
    {
        if (m_owner->unsettled() < kSearchesOfHandlers) {
            m_owner->m_ledger.count(Event::startInCall);
            m_owner->start(search.dice());
        }
    }

    std::shared_ptr<SearchOwner> m_owner;
    Search::HandlerLife m_life;
};

SearchOwner::SearchOwner(Ledger& ledger, const Directory& directory, const std::string& url, Dice& dice)
    : m_ledger(ledger)
    , m_isAnonymous(dice.chance(25))
{
    ldap::Settings settings;
    settings.uri = utils::Url(QString::fromStdString(url));
    settings.responseTimeout = 1s;
    settings.searchPageSize = anyPageSize(dice);
    if (!m_isAnonymous) {
        settings.adminDn = QString::fromStdString(directory.rootDn);
        settings.adminPassword =
            dice.chance(3) ? QStringLiteral("wrong") : QString::fromStdString(directory.rootPassword);
    }
    const ldap::ConnectionOptions options = dice.chance(50) ? anyOptions(dice) : ldap::ConnectionOptions();
    if (dice.chance(60)) {
        connectManager(settings, options);
    } else {
        connectSession(settings, options, dice);
    }
}

/// Limits that are mostly kept and sometimes not.
ldap::ConnectionOptions SearchOwner::anyOptions(Dice& dice)
{
    m_ledger.count(Event::setOptions);
    const auto anyTime = [&] { return std::chrono::milliseconds(20 + dice.below(1000)); };
    m_interrupter.emplace();
    ldap::ConnectionOptions options;
    options.interrupter = m_interrupter;
    if (dice.chance(50)) {
        options.connectTimeout = anyTime();
    }
    if (dice.chance(50)) {
        options.answerTimeout = anyTime();
    }
    if (dice.chance(50)) {
        options.pageSilenceTimeout = anyTime();
    }
    if (dice.chance(20)) {
        options.maximumMessageSize = static_cast<std::size_t>(500 + dice.below(5000));
        options.maximumAnswerSize = static_cast<std::size_t>(1000 + dice.below(50'000));
    }
    return options;
}

void SearchOwner::connectManager(const ldap::Settings& settings, const ldap::ConnectionOptions& options)
{
    m_ledger.count(Event::createManager);
    m_ownManager = ldap::createManagerOrThrow(settings, options);
    m_manager = m_ownManager.get();
}

void SearchOwner::connectSession(
    const ldap::Settings& settings, const ldap::ConnectionOptions& options, Dice& dice)
{
    m_ledger.count(Event::createSession);
    auto session = std::make_unique<ldap::Session>(settings.uri, false, false, options);
    session->setResponseTimeout(settings.responseTimeout);
    if (dice.chance(50)) {
        session->detectLdapVendor();
    }
    session->bind(settings.adminDn, settings.adminPassword);
    m_ownSession = std::move(session);
    m_session = m_ownSession.get();
}

void SearchOwner::start(Dice& dice)
{
    const bool people = asksForPeople(dice);
    if (m_session != nullptr) {
        asyncSearch(dice);
    } else if (people) {
        fetchUsers(dice);
    } else {
        fetchGroups(dice);
    }
}

void SearchOwner::fetchUsers(Dice& dice)
{
    m_ledger.count(Event::fetchUsers);
    startAs<ldap::User>("a fetch of users", Directory::people, dice, [this](auto handler) {
        return m_manager->fetchUsersAsync(std::move(handler), {kBase, kPeopleFilter});
    });
}

void SearchOwner::fetchGroups(Dice& dice)
{
    m_ledger.count(Event::fetchGroups);
    startAs<ldap::Group>("a fetch of groups", Directory::groups, dice, [this](auto handler) {
        return m_manager->fetchGroupsAsync(std::move(handler), {kBase, {}});
    });
}

void SearchOwner::asyncSearch(Dice& dice)
{
    m_ledger.count(Event::asyncSearch);
    const bool people = asksForPeople(dice);
    const int pageSize = anyPageSize(dice);
    startAs<ldap::SearchEntry>("an asyncSearch", countOf(people), dice, [&](auto handler) {
        return m_session->asyncSearch(paramsFor(people), std::move(handler), pageSize);
    });
}

template <class Record, class Start>
void SearchOwner::startAs(const char* name, int complete, Dice& dice, Start start)
{
    const SearchPtr search = newSearch(name, reachable(complete), dice.split());
    try {
        search->started(start(Handler<Record>(shared_from_this(), search)));
    } catch (const ldap::BaseError&) {
        m_ledger.count(Event::startRefused);
        search->refused();
    }
}

void SearchOwner::operate(Dice& dice)
{
    if (m_session == nullptr) {
        return;
    }
    static constexpr std::array<Operation, 5> operations{&SearchOwner::search, &SearchOwner::simpleSearch,
        &SearchOwner::whoAmI, &SearchOwner::detectVendor, &SearchOwner::contextSearch};
    const Operation operation = operations[static_cast<std::size_t>(dice.below(operations.size()))];
    try {
        (this->*operation)(dice);
    } catch (const ldap::BaseError&) {
        m_ledger.count(Event::operationFailed);
    }
}

void SearchOwner::search(Dice& dice)
{
    m_ledger.count(Event::search);
    const bool people = asksForPeople(dice);
    const auto outcome = m_session->search(paramsFor(people), anyPageSize(dice));
    if (const auto* const entries = std::get_if<std::vector<ldap::SearchEntry>>(&outcome)) {
        checkEntries("a search", *entries, countOf(people));
        return;
    }
    m_ledger.count(Event::operationFailed);
    const Result result = std::get<Result>(outcome);
    const bool mayBeCancelled = *m_isInterrupted;
    if (result == Result::ok || result == Result::moreResults ||
        (result == Result::cancelled && !mayBeCancelled)) {
        m_ledger.violation("a search that was waited for has the result " + ldap::toString(result));
    }
}

void SearchOwner::simpleSearch(Dice& dice)
{
    m_ledger.count(Event::simpleSearch);
    const bool people = asksForPeople(dice);
    checkEntries("a simpleSearch", m_session->simpleSearch(paramsFor(people)), countOf(people));
}

void SearchOwner::whoAmI(Dice&)
{
    m_ledger.count(Event::whoAmI);
    const bool isAnonymous = m_session->whoAmI() == QStringLiteral("anonymous");
    if (isAnonymous != m_isAnonymous) {
        m_ledger.violation("whoAmI names somebody else: " + m_session->whoAmI().toStdString());
    }
}

void SearchOwner::detectVendor(Dice& dice)
{
    m_ledger.count(Event::detectVendor);
    m_session->setResponseTimeout(std::chrono::seconds(1 + dice.below(2)));
    if (m_session->detectLdapVendor().loginAttribute != QStringLiteral("uid")) {
        m_ledger.violation("detectLdapVendor takes the server for another");
    }
}

void SearchOwner::contextSearch(Dice& dice)
{
    m_ledger.count(Event::contextSearch);
    const bool people = asksForPeople(dice);
    const SearchPtr search = newSearch("a search of a context", reachable(countOf(people)), dice.split());
    try {
        const std::shared_ptr<ldap::SearchContext> context =
            m_session->createSearchContext(paramsFor(people));
        context->asyncSearch(ContextHandler(m_ledger, search, *context), anyPageSize(dice));
        waitFor(200ms, [&] { return search->isSettled(); });
        context->stopAsyncSearch();
    } catch (const ldap::BaseError&) {
        m_ledger.count(Event::startRefused);
        search->refused();
        return;
    }
    // Its thread may be the last to own the context.
    waitFor(kPatience, [&] { return search->isOver(); });
    search->checkIsOver();
}

void SearchOwner::forgetOne(Dice& dice)
{
    const std::shared_lock life(m_life);
    if (m_hasEnded) {
        return;
    }
    SearchPtr search;
    {
        const std::lock_guard lock(m_mutex);
        if (m_searches.empty()) {
            return;
        }
        search = m_searches[static_cast<std::size_t>(dice.below(static_cast<int>(m_searches.size())))];
    }
    m_ledger.count(Event::forget);
    search->forget([this](ldap::SearchContext* context) { forget(context); });
}

void SearchOwner::stopLate(Dice& dice)
{
    const std::shared_lock life(m_life);
    if (!m_hasEnded) {
        stopLateInCall(dice);
    }
}

void SearchOwner::stopLateInCall(Dice& dice)
{
    ldap::SearchContext* ended = nullptr;
    {
        const std::lock_guard lock(m_mutex);
        retireEnded();
        if (m_ended.empty()) {
            return;
        }
        ended = m_ended[static_cast<std::size_t>(dice.below(static_cast<int>(m_ended.size())))];
    }
    m_ledger.count(Event::stopLate);
    forget(ended);
}

/// To be called with the mutex held.
void SearchOwner::retireEnded()
{
    const auto ended = std::stable_partition(
        m_searches.begin(), m_searches.end(), [](const SearchPtr& search) { return !search->isOver(); });
    for (auto search = ended; search != m_searches.end(); ++search) {
        if ((*search)->context() != nullptr) {
            m_ended.push_back((*search)->context());
        }
    }
    m_searches.erase(ended, m_searches.end());
    while (m_ended.size() > kAddressesKept) {
        m_ended.pop_front();
    }
}

void SearchOwner::forget(ldap::SearchContext* context)
{
    if (m_session != nullptr) {
        m_session->stopAsyncSearch(context);
    } else {
        m_manager->stopAsyncFetch(context);
    }
}

void SearchOwner::interrupt()
{
    if (m_interrupter) {
        *m_isInterrupted = true;
        m_interrupter->interrupt();
    }
}

void SearchOwner::end()
{
    m_ledger.count(Event::destroyOwner);
    {
        const std::unique_lock life(m_life);
        m_hasEnded = true;
        m_ownManager.reset();
        m_ownSession.reset();
    }
    std::vector<SearchPtr> searches;
    {
        const std::lock_guard lock(m_mutex);
        searches.swap(m_searches);
    }
    for (const SearchPtr& search : searches) {
        search->checkIsOver();
    }
}

void SearchOwner::endFromCall()
{
    const Claim claim(m_isClaimed);
    if (claim && !m_hasEnded) {
        m_ledger.count(Event::destroyInCall);
        end();
    }
}

void SearchOwner::operateFromCall(Dice& dice)
{
    const Claim claim(m_isClaimed);
    if (claim && !m_hasEnded && m_session != nullptr) {
        m_ledger.count(Event::searchInCall);
        operate(dice);
    }
}

SearchOwner::SearchPtr SearchOwner::newSearch(
    const char* name, std::optional<std::size_t> complete, Dice dice)
{
    auto search = std::make_shared<Search>(
        m_ledger, name, complete, std::move(dice), m_isInterrupted, [owner = weak_from_this()] {
            if (const auto self = owner.lock()) {
                self->changed();
            }
        });
    const std::lock_guard lock(m_mutex);
    retireEnded();
    m_searches.push_back(search);
    return search;
}

std::optional<std::size_t> SearchOwner::reachable(int complete) const
{
    if (m_isAnonymous && complete > Directory::sizeLimit) {
        return std::nullopt;
    }
    return static_cast<std::size_t>(complete);
}

void SearchOwner::checkEntries(
    const char* name, const std::vector<ldap::SearchEntry>& entries, int complete) const
{
    const std::vector<QString> dns = dnsOf(entries);
    const std::set<QString> distinct(dns.begin(), dns.end());
    if (dns.size() != reachable(complete) || distinct.size() != dns.size()) {
        m_ledger.violation(std::string(name) + " is ok though entries are missing or doubled");
    }
}

void SearchOwner::changed() const
{
    const std::lock_guard lock(m_mutex);
    m_changed.notify_all();
}

std::size_t SearchOwner::unsettled() const
{
    const std::lock_guard lock(m_mutex);
    return unsettledLocked();
}

std::size_t SearchOwner::unsettledLocked() const
{
    return static_cast<std::size_t>(std::count_if(
        m_searches.begin(), m_searches.end(), [](const SearchPtr& search) { return !search->isSettled(); }));
}

bool SearchOwner::isBroken() const
{
    const std::lock_guard lock(m_mutex);
    return *m_isInterrupted || std::any_of(m_searches.begin(), m_searches.end(),
                                   [](const SearchPtr& search) { return search->hasLostConnection(); });
}

bool SearchOwner::waitForSettled(std::size_t count, std::chrono::milliseconds time) const
{
    return waitFor(time, [&] { return unsettledLocked() <= count; });
}

template <class Condition>
bool SearchOwner::waitFor(std::chrono::milliseconds time, Condition holds) const
{
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, time, holds);
}

} // namespace tavo::stress
