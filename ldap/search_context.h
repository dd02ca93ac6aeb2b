#pragma once

#include <ldap/entry.h>
#include <ldap/error.h>
#include <ldap/export.h>
#include <ldap/result.h>
#include <ldap/search_params.h>
#include <ldap/utils.h> // for callers, who get it from here
#include <tavo_utils/move_only_func.h>
#include <tavo_utils/mutex.h>

#include <chrono>
#include <future>
#include <memory>
#include <vector>

/// The client library's connection handle, as its own header declares it.
struct ldap;
using LDAP = struct ldap;

namespace tavo::ldap {

class Connection;
class SearchQueue;
class SearchTicket;

/// What a search calls with its results: any number of times with `Result::moreResults` and a full page, then
/// exactly once with any other result and the last page (`Result::ok`) or nothing.
using SearchHandler = utils::MoveOnlyFunc<void(Result, std::vector<SearchEntry>)>;

/// One search on a connection handle of its own: blocking, or page by page on a background thread.
///
/// Made by `Session::createSearchContext`, and inside `Session` for its own searches; most callers use
/// `Session` or `Manager` and never see it.
///
/// Threads: one thread calls `simpleSearch` and `asyncSearch`; any thread may call `stopAsyncSearch` and
/// `isAsyncSearchRunning`. The handler runs on the search's own thread: intermediate calls under the
/// context's mutex, which is recursive, so that it may stop its own search; the final call without it.
class TAVO_LDAP_EXPORT SearchContext : public std::enable_shared_from_this<SearchContext>
{
public:
    /// Takes ownership of the handle, with the function that destroys it.
    /// \param timeout the time limit that is sent with every request
    SearchContext(
        std::unique_ptr<LDAP, void (*)(LDAP*)> ldap, SearchParams params, std::chrono::seconds timeout);

    /// Never ends a running search: its thread owns the context, too, so the search goes on when all other
    /// owners are gone. The handler of a search that an exception ended without a final call gets
    /// `Result::cancelled` here, on this thread.
    ~SearchContext();

    SearchContext(const SearchContext&) = delete;
    SearchContext& operator=(const SearchContext&) = delete;

    /// Runs the search without paging and returns all entries. Blocks until the server has answered, at most
    /// about the time limit.
    ///
    /// \throws BaseError on any failure; there is no partial result, also not at a size or time limit
    std::vector<SearchEntry> simpleSearch() const;

    /// Starts the paged search (RFC 2696) on a thread of its own and returns at once.
    ///
    /// The context must be owned by a `std::shared_ptr`. A page size below 1, or a second start while the
    /// first runs, is reported as an assertion failure; `handler` then gets `Result::ok` without entries at
    /// once, on this thread; with `Completeness::required` it gets `Result::sizeLimitExceeded`.
    ///
    /// Waits for the thread of an earlier search of this context, which may still wait for its server. The
    /// paged searches of one session's contexts and of the session itself take turns, in the order of their
    /// start.
    ///
    /// An exception that the handler throws ends the search. A `BaseError` from an intermediate call becomes
    /// the final result. Any other exception is logged; the final call, `Result::cancelled`, then comes when
    /// the context is stopped or destroyed.
    ///
    /// \throws std::system_error when no thread can be had, std::bad_weak_ptr without an owner; the handler
    ///         is dropped uncalled then
    void asyncSearch(SearchHandler handler, int pageSize);

    /// Whether a search was started whose final call hasn't begun.
    bool isAsyncSearchRunning() const;

    /// Stops a running search: its handler is called with `Result::cancelled` on this thread, after an
    /// intermediate call that has begun. Does nothing when no search runs.
    ///
    /// The search's thread ends soon after, but not before the server has answered a request that is pending.
    void stopAsyncSearch();

private:
    friend class SearchTable;
    friend class Session;

    class TAVO_LDAP_NO_EXPORT Pages;

    TAVO_LDAP_NO_EXPORT std::vector<SearchEntry> findEntries(SearchReport& report) const;
    TAVO_LDAP_NO_EXPORT void stopAsyncSearch(SearchReport report, std::vector<SearchEntry> entries);
    TAVO_LDAP_NO_EXPORT Result resultOfRefusedStart() const;
    TAVO_LDAP_NO_EXPORT void readPages(int pageSize);
    TAVO_LDAP_NO_EXPORT void reportBrokenOff(const char* reason);

    /// False where another search's thread stops or destroys this one.
    TAVO_LDAP_NO_EXPORT bool runsOnThisThread() const;

    /// Lets the next paged search of the connection run; this one ends if it hasn't begun.
    TAVO_LDAP_NO_EXPORT void giveUpTurn();

    std::unique_ptr<LDAP, void (*)(LDAP*)> m_ldap;
    /// Apart, because the session keeps the storage of its ended contexts for a while.
    std::unique_ptr<SearchParams> m_params;
    std::chrono::seconds m_timeout;

    /// The attribute list as the client library takes it: pointers into `m_params->attributes`, then a null
    /// pointer; empty for an empty list.
    std::vector<char*> m_attributeNames;

    /// Set while a paged search runs; taking it out is how a search ends.
    mutable Lockable<SearchHandler> m_handler;

    std::future<void> m_asyncSearch;

    /// The connection's; null for a context that gets its ticket elsewhere.
    std::shared_ptr<SearchQueue> m_queue;

    /// Null for a connection without options.
    std::shared_ptr<Connection> m_connection;

    /// That of the running search, or of the last one; set before its thread starts. Null for a search that
    /// waits for no other.
    std::shared_ptr<SearchTicket> m_ticket;

    /// Called on the search's thread when an exception ends it without a final call; set before the search
    /// starts. Empty when nobody wants to know.
    utils::MoveOnlyFunc<void()> m_onBrokenOff;
};

} // namespace tavo::ldap
