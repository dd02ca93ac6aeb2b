#include "ldap/private/search_table.h"

#include <ldap/error.h>
#include <ldap/private/destructor_call.h>
#include <ldap/private/positions.h>
#include <ldap/private/search_queue.h>
#include <ldap/private/search_threads.h>
#include <tavo_utils/assert.h>
#include <tavo_utils/scope_guard.h>

#include <ldap.h>

namespace tavo::ldap {

/// What a session's ended searches may cost: for each a context's storage with the counters of its owners and
/// the heap's own share, and a weak owner.
static_assert(EndedAddresses::kKept * (sizeof(SearchContext) + 6 * sizeof(void*)) < 1'500'000);

SearchContext* SearchTable::start(std::shared_ptr<SearchContext> search, std::shared_ptr<SearchQueue> queue,
    SearchHandler handler, int pageSize)
{
    // To the end of this call, though another thread may forget the search before.
    const std::shared_ptr<SearchContext> owner = std::move(search);
    SearchContext* const context = owner.get();
    const auto guard = m_asyncGuard.sharedGuard();
    {
        const MutexLocker lock(m_mutex, positions::registerSearchLock);
        if (m_isEnding) {
            // By a final call; nobody would be left to make the new search's own.
            throw BaseError(LDAP_USER_CANCELLED, QStringLiteral("asyncSearch"), 0);
        }
        m_ended.makeRoomFor(m_asyncSearches.size() + 1);
        owner->m_ticket = std::make_shared<SearchTicket>(std::move(queue));
        m_asyncSearches.emplace(context, std::make_pair(owner, std::move(handler)));
    }
    utils::ScopeGuard unregister([&] {
        // Unless the handler of a refused start has destroyed the session before it threw.
        if (const auto alive = guard.lock()) {
            forget(context);
        }
    });
    // The context's address and not its owner: the wrapper is kept by the context itself.
    context->asyncSearch(
        [this, guard, context](Result result, std::vector<SearchEntry> entries) {
            const auto alive = guard.lock();
            if (!alive) {
                // Nobody wants to know any more: let its thread read no further page.
                context->stopAsyncSearch();
                return;
            }
            const bool isOwnThread = context->runsOnThisThread();
            const bool wasLastCall = complete(context, result, std::move(entries));
            // While the guard is held, so that a session that ends doesn't miss it. Not if the handler has
            // thrown, which its thread has yet to log.
            if (wasLastCall && isOwnThread) {
                search_threads::announceEnd();
            }
        },
        pageSize);
    unregister.dismiss();
    return context;
}

bool SearchTable::complete(SearchContext* context, Result result, std::vector<SearchEntry> entries)
{
    // Released after the lock: a handler that forgets its own search may own the session.
    AsyncSearches forgotten;
    MutexLocker lock(m_mutex, positions::completeSearchLock);
    const auto search = m_asyncSearches.find(context);
    if (search == m_asyncSearches.end()) {
        return false;
    }
    if (result == Result::moreResults) {
        m_isDelivering = true;
        const utils::ScopeGuard delivered([&] {
            m_isDelivering = false;
            forgotten.swap(m_forgotten);
        });
        search->second.second(result, std::move(entries));
        return false;
    }
    const bool isWithinIntermediateCall = m_isDelivering;
    const auto ended = takeOut(context);
    lock.unlock();
    ended.mapped().second(result, std::move(entries));
    return !isWithinIntermediateCall;
}

/// Takes a search out of the table, if it is there: it has ended, as its caller sees it.
SearchTable::AsyncSearches::node_type SearchTable::takeOut(SearchContext* context)
{
    auto search = m_asyncSearches.extract(context);
    if (search) {
        m_ended.add(search.mapped().first);
    }
    return search;
}

void SearchTable::forget(SearchContext* context)
{
    MutexLocker lock(m_mutex, positions::forgetSearchLock);
    // Released after the lock: the handler is the caller's code, and the context may be the last of its own.
    auto forgotten = takeOut(context);
    if (!forgotten) {
        return;
    }
    context->giveUpTurn();
    if (m_isDelivering) {
        // By a handler, whose call holds the lock until it returns.
        m_forgotten.insert(std::move(forgotten));
    }
    lock.unlock();
}

utils::MoveOnlyFunc<void()> SearchTable::brokenOffHandler(SearchContext* context)
{
    return [this, guard = m_asyncGuard.sharedGuard(), context] {
        if (const auto alive = guard.lock()) {
            complete(context, Result::connectError, {});
            // Here, as it looks for the search under the lock: whoever waits for this thread once it has
            // announced its end may hold that lock.
            context->stopAsyncSearch();
            search_threads::announceEnd();
        }
    };
}

bool SearchTable::isDeliveringOnThisThread()
{
    // A call on another thread has the lock and is waited for.
    const MutexLocker lock(m_mutex);
    return m_isDelivering;
}

void SearchTable::cancelAll(const log::Tag& tag)
{
    MutexLocker lock(m_mutex, positions::sessionDestructorLock);
    if (m_isDelivering) {
        // On this thread, as the lock is held during that call.
        assertFailure(positions::sessionEndsInIntermediateCall, "!m_isDelivering",
            QStringLiteral("a handler must not destroy its session or manager in an intermediate call"));
    }
    m_isEnding = true;
    auto searches = std::exchange(m_asyncSearches, {});
    lock.unlock();
    for (auto& [context, search] : searches) {
        context->giveUpTurn();
        callFromDestructor(tag, [&handler = search.second] { handler(Result::cancelled, {}); });
    }
    searches.clear();
    // Before the mutex and the table go: a completion on another thread either finishes its work on them
    // first or finds the guard invalid. Our own completion, if this runs in one, is not waited for.
    m_asyncGuard.invalidate();
    search_threads::joinAnnounced();
}

} // namespace tavo::ldap
