#pragma once

#include <ldap/connection_options.h>
#include <ldap/connection_test.h>
#include <ldap/error.h>
#include <ldap/export.h>
#include <ldap/result.h>
#include <ldap/search_params.h>
#include <ldap/settings.h>
#include <ldap/user.h>
#include <tavo_utils/move_only_func.h>

#include <memory>
#include <vector>

namespace tavo::ldap {

class SearchContext;

/// The handler of a fetch: called any number of times with `Result::moreResults` and one page of records,
/// then once with any other result and the last page (`Result::ok`) or nothing. On the fetch's own thread,
/// except for `Result::cancelled`; see `Manager`.
///
/// A page with an entry that can't become a record, because its DN is needed and can't be parsed, ends the
/// fetch with a failure. None of that page's records are delivered.
using UsersHandler = utils::MoveOnlyFunc<void(Result, std::vector<User>)>;

/// The same for groups.
using GroupsHandler = utils::MoveOnlyFunc<void(Result, std::vector<Group>)>;

/// A bound connection to a directory as a source of users and groups.
///
///     auto manager = createManagerOrThrow(settings);
///     manager->fetchUsersAsync([](Result result, std::vector<User> page) { ... }, {u"dc=example"_qs, {}});
///
/// Threads: one thread at a time uses a manager, except that any thread may call `stopAsyncFetch`. Each fetch
/// calls its handler on a thread of its own. A handler may start and stop fetches from any call, and destroy
/// the manager from a final call, but not from an intermediate one: that is reported as an assertion failure,
/// and what follows is undefined. Destroying the manager gives the handlers of running fetches
/// `Result::cancelled`, on the destroying thread, and waits for a handler that runs on another thread.
///
/// Starting and detaching wait for an intermediate call that runs on another thread, and for the lines that the
/// manager logs at debug level while it takes a page. So do neither while holding a lock that the log's sink
/// takes; and in an intermediate call, neither to another manager, whose calls may be waiting for this one.
class TAVO_LDAP_EXPORT Manager
{
public:
    virtual ~Manager() = 0;
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    /// Starts fetching the users below `filter.base` and returns at once.
    ///
    /// The caller's filter text is combined with the directory's user filter. Entries without a login are
    /// dropped, with a line in the log at debug level.
    /// \return what `stopAsyncFetch` takes; for no other use. The handler may be called before this returns
    /// \throws BaseError, std::system_error when the fetch can't be started, as in a handler whose manager is
    ///         being destroyed; `handler` is dropped then
    virtual SearchContext* fetchUsersAsync(UsersHandler handler, const SearchFilter& filter) = 0;

    /// Starts fetching the groups below `filter.base`; otherwise like `fetchUsersAsync`. Groups without members
    /// are delivered, too. Those that Active Directory sends in ranges are read whole; one that vanishes
    /// meanwhile is left out, with a warning in the log.
    virtual SearchContext* fetchGroupsAsync(GroupsHandler handler, const SearchFilter& filter) = 0;

    /// Detaches a fetch: its handler is dropped and not called again. Thread-safe. Waits for an intermediate
    /// call that is running on another thread. Comes too late for a fetch whose final call is due: another
    /// thread may be making that call, or be about to, when this returns. What the handler uses must
    /// therefore outlive the handler.
    ///
    /// An unknown or ended fetch is ignored. Stopping late harms nobody: no fetch is identified by the same
    /// address before 4,096 more fetches of this manager have ended. For this a manager keeps up to 1.5 MB,
    /// about 270 bytes for each ended fetch.
    virtual void stopAsyncFetch(SearchContext* context) = 0;

    /// `fetchUsersAsync` with a say about incomplete lists, as in `SearchParams`. A host that removes the
    /// accounts that a list lacks asks for `Completeness::required`. Entries without a login are no loss; where
    /// the kind of directory couldn't be found out when the manager was made, that may be all of them.
    /// \param report filled before the final call of the handler begins; may be null
    virtual SearchContext* fetchUsersAsync(UsersHandler handler, const SearchFilter& filter,
        Completeness completeness, std::shared_ptr<SearchReport> report = {}) = 0;

    /// `fetchGroupsAsync` with a say about incomplete lists.
    virtual SearchContext* fetchGroupsAsync(GroupsHandler handler, const SearchFilter& filter,
        Completeness completeness, std::shared_ptr<SearchReport> report = {}) = 0;

protected:
    Manager();
};

/// Connects, detects the vendor, completes the attribute mapping and binds. Blocks.
///
/// The vendor is detected before the bind, without credentials. An empty `Settings::adminDn` binds
/// anonymously. The library's log gets the settings at verbose level, without the password unless
/// `log::setShowPasswords` allows it.
///
/// Sets the client library's debug level to `openldapDebugLevel` of `tavo_ldap.ini`, 0 by default.
/// \throws InvalidCredentialsError, TlsError, BaseError
TAVO_LDAP_EXPORT std::unique_ptr<Manager> createManagerOrThrow(Settings settings);

/// The same over a connection with options.
TAVO_LDAP_EXPORT std::unique_ptr<Manager> createManagerOrThrow(
    Settings settings, const ConnectionOptions& options);

} // namespace tavo::ldap
