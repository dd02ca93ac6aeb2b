#include "ldap/private/search_exchange.h"

#include <ldap/error.h>
#include <ldap/private/failure_details.h>
#include <ldap/private/handle.h>
#include <ldap/private/search_request.h>
#include <ldap/private/wire/connection.h>
#include <ldap/tavo_ldap_ini.h>

#include <cerrno>
#include <chrono>
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

/// The error of a call that the server hasn't answered.
BaseError failedCall(const PageSource& source, QString context, ClientCallResult returned)
{
    const auto [code, systemError] = outcomeOf(source.connection, returned);
    BaseError error(code, std::move(context), systemError);
    addFailureDetails(error, source.ldap, isSecure(source.ldap));
    explainEnd(source.connection, error);
    return error;
}

BaseError resultError(const PageSource& source, LDAPMessage* message, int systemError)
{
    int code = LDAP_SERVER_DOWN;
    if (message != nullptr) {
        const int rc =
            ldap_parse_result(source.ldap, message, &code, nullptr, nullptr, nullptr, nullptr, /*freeit*/ 1);
        code = rc != LDAP_SUCCESS ? rc : code;
    }
    return failedCall(source, QStringLiteral("ldap_result"), {code, systemError});
}

/// How long the client library waits for a message.
timeval waitingTime(TimeLimit::Duration left)
{
    if (!left) {
        return kZeroTimeout;
    }
    const auto seconds = std::chrono::floor<std::chrono::seconds>(*left);
    return {seconds.count(), std::chrono::microseconds(*left - seconds).count()};
}

TimeLimit::Duration silence(const Connection* connection)
{
    return connection != nullptr ? connection->options().pageSilenceTimeout : std::nullopt;
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
    const TimeLimit limit(m_source.connection, Limit::pageSilence, silence(m_source.connection));
    const int rc =
        ldap_search_ext(ld, request.base.constData(), request.scope, request.filter(), request.attributes(),
            /*attrsonly*/ 0, controls, nullptr, &request.timeout, /*sizelimit*/ 0, &messageId);
    const int systemError = errno;
    if (rc != LDAP_SUCCESS) {
        throw failedCall(m_source, QStringLiteral("ldap_search_ext"), {rc, systemError});
    }
    return messageId;
}

std::optional<SearchResponse> SearchExchange::receive(int messageId, const SearchParams& params)
{
    LDAP* ld = m_source.ldap;
    const TimeLimit limit(m_source.connection, Limit::pageSilence, silence(m_source.connection));
    while (m_search.isRunning()) {
        timeval timeout = waitingTime(limit.left());
        LDAPMessage* received = nullptr;
        const int rc = ldap_result(ld, messageId, LDAP_MSG_ALL, &timeout, &received);
        const int systemError = errno;
        if (rc == -1) {
            if (getLdapError(ld) == LDAP_DECODING_ERROR) {
                stopReading(ld);
            }
            throw resultError(m_source, received, systemError);
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
        if (limit.left() == std::chrono::milliseconds(0)) {
            m_source.connection->endByLimit(limit.limit(), limit.duration());
            throw failedCall(m_source, QStringLiteral("ldap_result"), {LDAP_TIMEOUT, ETIMEDOUT});
        }
        sleepPollInterval();
    }
    // The outstanding request is not abandoned; it dies with the connection.
    return std::nullopt;
}

} // namespace tavo::ldap
