#pragma once

#include <ldap/utils.h>

#include <ldap.h>

#include <QByteArray>

#include <memory>
#include <vector>

namespace tavo::ldap {

/// The result code of the handle's last operation; 0, after an assertion report, when it can't be read.
int getLdapError(LDAP* ld);

/// A result message chain with the function that frees it.
using MessagePtr = std::unique_ptr<LDAPMessage, int (*)(LDAPMessage*)>;

/// The array of controls that came with a result; null when the server sent none.
using ControlsPtr = std::unique_ptr<LDAPControl*, void (*)(LDAPControl**)>;

/// One request control.
using ControlPtr = std::unique_ptr<LDAPControl, void (*)(LDAPControl*)>;

/// Reads one entry message; owns neither the handle nor the message and lives only for the reading.
class LdapSearchEntryAccessor
{
public:
    LdapSearchEntryAccessor(LDAP* ld, LDAPMessage* entry);

    /// The entry with the given attributes, in that order and spelling; all that it carries for an empty
    /// list. \throws BaseError when the DN can't be read
    SearchEntry createSearchEntry(std::vector<QByteArray> attributes);

    /// \throws BaseError
    QString getDn();

    /// The names of the attributes that the entry carries, in the server's order and spelling.
    std::vector<QByteArray> getAttributeNames();

    /// The attribute with its values; without any when the entry lacks it.
    Attribute getAttribute(QString name);

private:
    LDAP* m_ldap;
    LDAPMessage* m_entry;
};

/// Owns the message chain of one search result and reads it; talks to no server.
class SearchResponse
{
public:
    SearchResponse(LDAP* ld, MessagePtr chain);

    /// The entries of the chain; one whose DN can't be read is left out with a line in the log.
    std::vector<SearchEntry> entries(const std::vector<QByteArray>& attributes);

    /// The controls of the final message.
    /// \throws BaseError when the message can't be parsed
    ControlsPtr controls();

    /// Writes the continuation references (RFC 4511, section 4.5.3) to the log. They are never followed.
    void logReferences();

private:
    LDAP* m_ldap;
    MessagePtr m_chain;
};

/// The state of a paged search between two pages (RFC 2696).
class Cookie
{
public:
    explicit Cookie(LDAP* ld);
    ~Cookie();
    Cookie(const Cookie&) = delete;
    Cookie& operator=(const Cookie&) = delete;

    /// Replaces the cookie by the one in a response's controls; it becomes empty when there is none.
    /// \throws BaseError when the page control can't be parsed; the cookie is empty then
    void update(const ControlsPtr& controls);

    bool isEmpty() const;

    /// The length in bytes.
    int size() const;

    /// The critical request control for the next page.
    /// \throws BaseError when it can't be built
    ControlPtr createPageControl(int pageSize);

private:
    void release();

    LDAP* m_ldap;
    berval m_cookie;
};

/// Whether a response's controls hold a page control, of whatever content.
bool hasPageControl(const ControlsPtr& controls);

/// Whether a response's controls hold a page control that says that there is more.
bool hasLivePageCookie(LDAP* ld, const ControlsPtr& controls);

} // namespace tavo::ldap
