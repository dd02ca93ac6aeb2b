#include "ldap/private/search_response.h"

#include <ldap/error.h>
#include <ldap/private/entry_accessor.h>
#include <ldap/private/positions.h>
#include <tavo_utils/assert.h>
#include <tavo_utils/scope_guard.h>

#include <utility>

namespace tavo::ldap {

FinalResult readFinalResult(LDAP* ld, LDAPMessage* chain, bool freeChain)
{
    int code = LDAP_SUCCESS;
    char* matchedDn = nullptr;
    char* diagnostic = nullptr;
    char** referrals = nullptr;
    const int rc =
        ldap_parse_result(ld, chain, &code, &matchedDn, &diagnostic, &referrals, nullptr, freeChain ? 1 : 0);
    const utils::ScopeGuard freeParsed([&] {
        ldap_memfree(matchedDn);
        ldap_memfree(diagnostic);
        ber_memvfree(reinterpret_cast<void**>(referrals));
    });
    return {rc != LDAP_SUCCESS ? rc : code, QString::fromUtf8(matchedDn), QString::fromUtf8(diagnostic)};
}

BaseError failedSearch(const FinalResult& result, const QString& call, int systemError)
{
    BaseError error(result.code, call, systemError);
    error.serverMessage = result.diagnostic;
    error.matchedDn = result.matchedDn;
    return error;
}

void logFailedSearch(const log::Tag& tag, const QString& base, const FinalResult& result)
{
    TAVO_LOG_DEBUG(tag, u"Search failed for [%1], matched DN [%2]; the server says: [%3]", base,
        result.matchedDn, result.diagnostic);
}

SearchResponse::SearchResponse(LDAP* ld, MessagePtr chain)
    : m_ldap(ld)
    , m_chain(std::move(chain))
{}

std::vector<SearchEntry> SearchResponse::entries(AttributeNames& names)
{
    const std::vector<LDAPMessage*> messages = entryMessages();
    std::vector<SearchEntry> entries(messages.size());
    // All lists before the first text, in memory of their own. The texts outlive them in the records that are
    // made of the entries, and lists between them would leave a hole for each entry, all over the heap.
    for (SearchEntry& entry : entries) {
        entry.attributes.reserve(names.requested().size());
    }
    std::size_t read = 0;
    for (LDAPMessage* const message : messages) {
        SearchEntry& entry = entries[read];
        try {
            LdapSearchEntryAccessor accessor(m_ldap, message);
            accessor.read(entry, names);
            accessor.addRanges(entry, names.ranged());
            ++read;
        } catch (const BaseError& error) {
            entry.attributes.clear();
            TAVO_LOG_DEBUG(log::tag(*this), u"Search entry handling error: %1", error.what());
        }
    }
    m_unreadableEntries = entries.size() - read;
    entries.resize(read);
    return entries;
}

std::vector<LDAPMessage*> SearchResponse::entryMessages() const
{
    std::vector<LDAPMessage*> messages;
    for (LDAPMessage* message = ldap_first_entry(m_ldap, m_chain.get()); message != nullptr;
         message = ldap_next_entry(m_ldap, message)) {
        messages.push_back(message);
    }
    return messages;
}

Attribute SearchResponse::range(const QString& attribute)
{
    LDAPMessage* entry = ldap_first_entry(m_ldap, m_chain.get());
    return entry != nullptr ? LdapSearchEntryAccessor(m_ldap, entry).getRange(attribute)
                            : Attribute{attribute, {}};
}

ControlsPtr SearchResponse::controls()
{
    int errcode = LDAP_SUCCESS;
    LDAPControl** received = nullptr;
    const int rc = ldap_parse_result(
        m_ldap, m_chain.get(), &errcode, nullptr, nullptr, nullptr, &received, /*freeit*/ 0);
    ControlsPtr controls(received, &ldap_controls_free);
    if (rc != LDAP_SUCCESS) {
        throw BaseError(rc, QStringLiteral("ldap_parse_result"), 0);
    }
    if (errcode != LDAP_SUCCESS) {
        assertFailure(positions::responseWithError, "errcode == 0x00");
    }
    return controls;
}

void SearchResponse::logReferences()
{
    TAVO_LOG_VERBOSE(log::tag(*this), u"Logging references");
    for (LDAPMessage* reference = ldap_first_reference(m_ldap, m_chain.get()); reference != nullptr;
         reference = ldap_next_reference(m_ldap, reference)) {
        char** urls = nullptr;
        const int rc = ldap_parse_reference(m_ldap, reference, &urls, nullptr, /*freeit*/ 0);
        const utils::ScopeGuard freeUrls([&] { ber_memvfree(reinterpret_cast<void**>(urls)); });
        if (rc != LDAP_SUCCESS) {
            TAVO_LOG_DEBUG(
                log::tag(*this), u"Failed to parse LDAP reference entry: %1", BaseError::ldapErrorString(rc));
            return;
        }
        for (char** url = urls; url != nullptr && *url != nullptr; ++url) {
            TAVO_LOG_VERBOSE(log::tag(*this), u"Not chasing reference received from server: %1", *url);
        }
    }
}

} // namespace tavo::ldap
