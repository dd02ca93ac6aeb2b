#pragma once

#include <ldap/connection_options.h>
#include <ldap/export.h>
#include <ldap/result.h>
#include <ldap/search_context.h>
#include <ldap/search_params.h>
#include <ldap/tls_facts.h>
#include <ldap/utils.h>
#include <ldap/vendor.h>
#include <tavo_utils/url.h>

#include <QString>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

namespace tavo::ldap {

class Connection;
class SearchQueue;
class SearchTable;

/// One connection to a directory server: TLS, bind, searches.
///
///     Session session(tavo::utils::Url(u"ldaps://dc1.corp.example"_qs), false, false);
///     session.bind(u"cn=reader,dc=corp,dc=example"_qs, password);
///     auto entries = session.simpleSearch(
///         {u"dc=corp,dc=example"_qs, u"(uid=ann)"_qs, {}, SearchScope::subtree});
///
/// LDAP version 3 (RFC 4511); referrals are never followed. The client library's configuration decides about
/// TLS: which certificates are trusted, which protocols are good, what the client's own certificate is
/// (ldap.conf, `LDAPTLS_CACERT` and others).
///
/// Threads: one thread at a time uses a session, except that any thread may call `stopAsyncSearch`. Each
/// asynchronous search calls its handler on a thread of its own. A handler may start and stop searches from
/// any call, and destroy the session from a final call, but not from an intermediate one, which runs under
/// the session's lock: that is reported as an assertion failure, and what follows is undefined.
class TAVO_LDAP_EXPORT Session
{
public:
    /// Prepares the connection. With `startTls` it also connects and upgrades to TLS (RFC 4511,
    /// section 4.14); without, the first operation connects. The first session of a process also makes the
    /// client library read its configuration and look up the machine's own name, which may block.
    ///
    /// \param url `ldap://host[:port]` or `ldaps://host[:port]`, for which `startTls` is ignored; also
    ///        `ldapi://` and a path, or several URLs, separated by blanks, of which the first that answers
    ///        is used
    /// \param ignoreCertificateErrors accept a certificate that can't be verified, for this session alone
    /// \throws BaseError, TlsError. A URL that is empty, has another scheme or extensions (RFC 4516), names no
    ///         host or holds a name or password is refused (LDAP_PARAM_ERROR), and so is a list that mixes
    ///         `ldaps` with others; `BaseError::connectFailure` says why
    Session(const utils::Url& url, bool startTls, bool ignoreCertificateErrors);

    /// The same with options. If there are any, it connects here: to the first address of the server that takes
    /// the connection. Of a list of servers, the next one is tried when that fails, or the TLS handshake of
    /// `ldaps` does.
    /// \throws BaseError, TlsError. Options that contradict themselves are refused (LDAP_PARAM_ERROR)
    Session(
        const utils::Url& url, bool startTls, bool ignoreCertificateErrors, const ConnectionOptions& options);

    /// Gives the handlers of all running searches `Result::cancelled`, on this thread, and closes the
    /// connection. Waits for a handler that runs on another thread, not for a server that doesn't answer: a
    /// page that a search is waiting for keeps the search's thread, and the connection, until it comes. All
    /// searches of this session, detached ones included, end with the page under way; those of
    /// `createSearchContext` go on.
    ~Session();

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Upgrades the plain connection to TLS. Blocks for the handshake. At most once, before `bind`.
    ///
    /// After a failure, also when the server refuses, the session is of no further use: it sends nothing in the
    /// clear.
    /// \throws BaseError, TlsError
    void startTls();

    /// Simple bind (RFC 4513, section 5.1). Blocks. Both empty: anonymous.
    ///
    /// Exactly one empty is reported as an assertion failure and sent all the same: a DN without a password
    /// is an "unauthenticated bind", which some servers accept for anybody.
    /// \throws InvalidCredentialsError, TlsError, BaseError
    void bind(const QString& dn, const QString& password);

    /// The authorization identity of this session (RFC 4532), such as `dn:cn=reader,dc=example` or
    /// `u:EXAMPLE\reader`; "anonymous" when the server names none. Blocks.
    /// \throws TlsError, BaseError; not every server supports the operation
    QString whoAmI();

    /// What the connection has agreed on with TLS; nothing for a plain one, or for one that isn't connected yet.
    /// Not for while searches of the session run: their threads may see the connection end.
    std::optional<TlsFacts> tlsFacts() const;

    /// Sets the time limit of the searches that start from now on; 30 seconds by default.
    void setResponseTimeout(std::chrono::seconds timeout);

    /// Throws the error that fits a failed call of the client library: `TlsError` when the connection is
    /// secure and this thread's OpenSSL queue has a TLS error, else `BaseError`. Takes the earliest error off
    /// that queue; changes nothing about the connection.
    [[noreturn]] void checkErrorAndThrow(int ldapCode, int systemError, QString context) const;

    /// Frees a connection handle; the deleter of every handle in this library. Logs a failure, never throws.
    static void destroyLdap(LDAP* ld);

    /// A search context on a duplicate of this session's handle, which shares its connection and may outlive
    /// the session. Keep it until its search has ended: nobody waits for a search's thread that is the last to
    /// own it.
    /// \throws BaseError when the handle can't be duplicated
    std::unique_ptr<SearchContext> createSearchContext(SearchParams params) const;

    /// All entries that match, in one unpaged request. Blocks. For small results: servers cut large ones.
    /// \throws BaseError on any failure; never a partial result
    std::vector<SearchEntry> simpleSearch(SearchParams params) const;

    /// Starts a paged search (RFC 2696) on a thread of its own and returns at once.
    ///
    /// Several searches may be started. Unless `detectLdapVendor` has found Active Directory they run one
    /// after the other, in the order of their start, because an OpenLDAP server pages one search for each
    /// connection.
    /// \param handler called on the search's thread: with `Result::moreResults` for each full page of
    ///        several, and once at the end with any other result
    /// \param pageSize entries per page; below 1 the handler gets `Result::ok` and nothing, on this thread;
    ///        with `Completeness::required` it gets `Result::sizeLimitExceeded`
    /// \return what `stopAsyncSearch` takes; owned by the session, for no other use
    /// \throws BaseError when the handle can't be duplicated, or (LDAP_USER_CANCELLED) in a handler whose
    ///         session is being destroyed; std::system_error when no thread can be had. The handler is then
    ///         dropped uncalled
    SearchContext* asyncSearch(SearchParams params, SearchHandler handler, int pageSize);

    /// Detaches a search: its handler is dropped and not called again. Thread-safe. Waits for an intermediate
    /// call that is running on another thread, as a start does: don't call either in an intermediate call of
    /// another session, for which this one's may be waiting. Comes too late for a search whose final call is
    /// due: another thread may be making that call, or be about to, when this returns.
    ///
    /// An unknown address does nothing; so does that of a search that has ended by its final call or by this
    /// function. Stopping late harms nobody: no search gets that address before 4,096 more searches of the
    /// session have ended. For this a session keeps up to 1.5 MB, about 270 bytes for each ended search.
    ///
    /// By design: the search itself runs to its end in the background, unless it hasn't begun or would
    /// disturb another paged search of the session. When the session goes, it ends with the page under way.
    void stopAsyncSearch(SearchContext* context);

    /// Runs a paged search and waits for all of it: returns the entries of all pages in the server's order,
    /// or the `Result` that ended the search, without entries. Waits for its turn behind earlier searches.
    ///
    /// Every failure is a `Result`: `Result::connectError` also when the handle can't be duplicated, no thread
    /// can be had or there is no memory, `Result::cancelled` when the session is destroyed meanwhile.
    ///
    /// A handler can't use it in an intermediate call of the same session, during which no other search can
    /// deliver.
    /// \throws std::future_error when `stopAsyncSearch` has detached the search; std::system_error
    ///         (`std::errc::resource_deadlock_would_occur`) in an intermediate call
    std::variant<Result, std::vector<SearchEntry>> search(SearchParams params, int pageSize);

    /// Reads the root DSE to find out which kind of directory this is. Blocks. A server that can't be asked
    /// counts as OpenLDAP; `VendorDefaults::failure` then says why it couldn't, and nothing is thrown.
    VendorDefaults detectLdapVendor() const;

private:
    TAVO_LDAP_NO_EXPORT void connect(
        const utils::Url& url, bool ignoreCertificateErrors, const ConnectionOptions& options);
    TAVO_LDAP_NO_EXPORT std::optional<std::chrono::milliseconds> answerTimeout() const;
    TAVO_LDAP_NO_EXPORT std::shared_ptr<SearchContext> createSharedContext(SearchParams params) const;

    /// Throws the error of a call on the session's own handle, explained. The connection is over after some.
    [[noreturn]] TAVO_LDAP_NO_EXPORT void throwFailure(
        int ldapCode, int systemError, QString context, const QString& secret = {}) const;

    /// Adds to an error, and to the log, what the handle keeps about its last call. A text that contains the
    /// secret is withheld.
    TAVO_LDAP_NO_EXPORT void explain(BaseError& error, const QString& secret) const;

    std::unique_ptr<LDAP, void (*)(LDAP*)> m_ldap;
    bool m_isSecure = false;
    /// Read by handlers that start searches while the session's own thread may set it.
    std::atomic<std::chrono::seconds> m_responseTimeout{std::chrono::seconds(30)};
    std::shared_ptr<SearchQueue> m_queue;
    std::unique_ptr<SearchTable> m_searches;
    /// Null without options.
    std::shared_ptr<Connection> m_connection;
};

} // namespace tavo::ldap
