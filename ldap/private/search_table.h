#pragma once

#include <ldap/private/ended_addresses.h>
#include <ldap/search_context.h>
#include <tavo_utils/async_operation_guard.h>
#include <tavo_utils/log.h>
#include <tavo_utils/move_only_func.h>
#include <tavo_utils/mutex.h>

#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace tavo::ldap {

class SearchQueue;

/// The running searches of one session: owns their contexts and their callers' handlers, and makes the
/// handlers' calls.
///
/// Thread-safe. The lock is recursive and is held during intermediate calls of handlers, never during final
/// ones. A handler may destroy the table in a final call.
class SearchTable
{
public:
    /// Starts a search, registered before.
    /// \return what `forget` takes
    /// \throws BaseError (LDAP_USER_CANCELLED) when the session is ending; what
    ///         `SearchContext::asyncSearch` throws. The handler is dropped uncalled then
    SearchContext* start(std::shared_ptr<SearchContext> search, std::shared_ptr<SearchQueue> queue,
        SearchHandler handler, int pageSize);

    /// Drops the handler of a search, uncalled. An unknown address does nothing; so does that of an ended
    /// search, which no other search gets before `EndedAddresses::kKept` more have ended.
    void forget(SearchContext* context);

    /// Makes what a search's thread calls when an exception ends the search without a final call. It makes
    /// that call, `Result::connectError`; after the table is gone it does nothing.
    utils::MoveOnlyFunc<void()> brokenOffHandler(SearchContext* context);

    /// Whether this thread is in an intermediate call of a handler.
    bool isDeliveringOnThisThread();

    /// Gives all handlers `Result::cancelled` and lets no search start or complete from now on; waits for a
    /// handler that runs on another thread. The last call before the table goes; in an intermediate call it is
    /// reported as an assertion failure.
    /// \param tag the session's, under which the exceptions of handlers are logged
    void cancelAll(const log::Tag& tag);

private:
    using AsyncSearches = std::map<SearchContext*, std::pair<std::shared_ptr<SearchContext>, SearchHandler>>;

    /// \return whether that was the last of a caller's code that this thread has to run for the search
    bool complete(SearchContext* context, Result result, std::vector<SearchEntry> entries);
    AsyncSearches::node_type takeOut(SearchContext* context);

    utils::AsyncOperationGuard m_asyncGuard;
    Mutex m_mutex{Mutex::RecursionMode::recursive};
    AsyncSearches m_asyncSearches;
    /// What a handler forgets while its intermediate call runs.
    AsyncSearches m_forgotten;
    /// Has room for every search in the table.
    EndedAddresses m_ended;
    bool m_isDelivering = false;
    bool m_isEnding = false;
};

} // namespace tavo::ldap
