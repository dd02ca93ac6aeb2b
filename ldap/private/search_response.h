#pragma once

#include <ldap/entry.h>
#include <ldap/private/owners.h>
#include <tavo_utils/log.h>

#include <ldap.h>

#include <QString>

#include <cstddef>
#include <vector>

namespace tavo::ldap {

class AttributeNames;
class BaseError;

/// What the final message of a result says.
struct FinalResult
{
    int code;
    QString matchedDn;
    QString diagnostic;
};

/// Reads the final message of a chain; with `freeChain` the chain is gone afterwards.
FinalResult readFinalResult(LDAP* ld, LDAPMessage* chain, bool freeChain);

/// The error of a search that the server has refused, with the server's words.
/// \param call the call of libldap that got the answer
BaseError failedSearch(const FinalResult& result, const QString& call, int systemError);

/// Logs what the server says about a failed search.
void logFailedSearch(const log::Tag& tag, const QString& base, const FinalResult& result);

/// Owns the message chain of one search result and reads it; talks to no server.
class SearchResponse
{
public:
    SearchResponse(LDAP* ld, MessagePtr chain);

    /// The entries of the chain; one whose DN can't be read is left out with a line in the log.
    ///
    /// Of the ranged attributes, an entry that has a range, but no values, gets the range as well, as an
    /// attribute behind the others.
    std::vector<SearchEntry> entries(AttributeNames& names);

    /// How many entries the last call of `entries` has left out.
    std::size_t unreadableEntries() const { return m_unreadableEntries; }

    /// The range of an attribute that the first entry has; without values when there is none.
    Attribute range(const QString& attribute);

    /// The controls of the final message.
    /// \throws BaseError when the message can't be parsed
    ControlsPtr controls();

    /// Writes the continuation references (RFC 4511, section 4.5.3) to the log. They are never followed.
    void logReferences();

private:
    std::vector<LDAPMessage*> entryMessages() const;

    LDAP* m_ldap;
    MessagePtr m_chain;
    std::size_t m_unreadableEntries = 0;
};

} // namespace tavo::ldap
