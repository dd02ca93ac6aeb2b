#include "ldap/private/search_exchange.h"

#include <ldap/error.h>
#include <ldap/private/failure_details.h>
#include <ldap/private/handle.h>
#include <ldap/private/search_request.h>
#include <ldap/tavo_ldap_ini.h>

#include <cerrno>
#include <ctime>
#include <utility>

namespace tavo::ldap {

namespace {

/// By design: minus one second, whatever the name says. The client library takes it as "wait until the result
/// is there", so the poll interval matters only when a call comes back without a message.
constexpr timeval kZeroTimeout{-1, 0};

constexpr timespec kPollInterval{0, 100'000'000};

void sleepPollInterval()
{
    timespec remaining = kPollInterval;
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}

BaseError explained(BaseError error, LDAP* ld)
{
    addFailureDetails(error, ld, isSecure(ld));
    return error;
}

BaseError resultError(LDAP* ld, LDAPMessage* message, int systemError)
{
    int code = LDAP_SERVER_DOWN;
    if (message != nullptr) {
        const int rc =
            ldap_parse_result(ld, message, &code, nullptr, nullptr, nullptr, nullptr, /*freeit*/ 1);
        code = rc != LDAP_SUCCESS ? rc : code;
    }
    return explained({code, QStringLiteral("ldap_result"), systemError}, ld);
}

/// By design: a result that the server calls a failure is one, whatever entries came with it. They are
/// few, and a short page would read as the end of the list.
void throwIfFailed(
    const FinalResult& result, int systemError, const log::Tag& tag, const SearchParams& params)
{
    if (result.code == LDAP_SUCCESS) {
        return;
    }
    logFailedSearch(tag, params.base, result);
    throw failedSearch(result, QStringLiteral("ldap_result"), systemError);
}

} // namespace

SearchExchange::SearchExchange(const PagedSearch& search, const PageSource& source)
    : m_search(search)
    , m_source(source)
{}

int SearchExchange::send(
    const SearchParams& params, const std::vector<char*>& attributeNames, LDAPControl** controls)
{
    LDAP* ld = m_source.ldap;
    SearchRequest request(params, attributeNames, m_source.timeout);
    int messageId = 0;
    clearFailureDetails(ld);
    const int rc =
        ldap_search_ext(ld, request.base.constData(), request.scope, request.filter(), request.attributes(),
            /*attrsonly*/ 0, controls, nullptr, &request.timeout, /*sizelimit*/ 0, &messageId);
    const int systemError = errno;
    if (rc != LDAP_SUCCESS) {
        throw explained({rc, QStringLiteral("ldap_search_ext"), systemError}, ld);
    }
    return messageId;
}

std::optional<SearchResponse> SearchExchange::receive(int messageId, const SearchParams& params)
{
    LDAP* ld = m_source.ldap;
    while (m_search.isRunning()) {
        timeval timeout = kZeroTimeout;
        LDAPMessage* received = nullptr;
        const int rc = ldap_result(ld, messageId, LDAP_MSG_ALL, &timeout, &received);
        const int systemError = errno;
        if (rc == -1) {
            if (getLdapError(ld) == LDAP_DECODING_ERROR) {
                stopReading(ld);
            }
            throw resultError(ld, received, systemError);
        }
        if (received != nullptr) {
            SearchResponse response(ld, MessagePtr(received, &ldap_msgfree));
            if (ini().logResponseReferences) {
                response.logReferences();
            }
            throwIfFailed(
                readFinalResult(ld, received, /*freeChain*/ false), systemError, m_source.tag, params);
            return response;
        }
        sleepPollInterval();
    }
    // The outstanding request is not abandoned; it dies with the connection.
    return std::nullopt;
}

} // namespace tavo::ldap
