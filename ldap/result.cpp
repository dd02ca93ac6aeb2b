#include "ldap/result.h"

#include <ldap/private/positions.h>
#include <tavo_utils/assert.h>
#include <tavo_utils/formatter.h>

#include <ldap.h>

namespace tavo::ldap {

std::string toString(Result result)
{
    switch (result) {
    case Result::ok:
        return "OK";
    case Result::moreResults:
        return "More results to be returned from the LDAP server.";
    case Result::noSuchObject:
        return "No target object found.";
    case Result::sizeLimitExceeded:
        return "Search limit exceeded. Narrow the searchPageSize in LDAP settings or fix the LDAP server "
               "configuration.";
    case Result::invalidCredentials:
        return "Invalid LDAP credentials.";
    case Result::cancelled:
        return "LDAP search is cancelled.";
    case Result::connectError:
        return "Cannot connect to LDAP server.";
    }
    const auto number = static_cast<std::int32_t>(result);
    assertFailure(positions::unknownResult, "false", utils::format(u"Unknown LDAP result %1", number));
    return utils::format(u"Unknown LDAP error: %1", number).toStdString();
}

Result translateErrorCode(int ldapCode)
{
    switch (ldapCode) {
    case LDAP_SUCCESS:
        return Result::ok;
    case LDAP_NO_SUCH_OBJECT:
    // By design: a malformed filter finds nothing rather than reading as a lost connection, which callers
    // retry.
    case LDAP_FILTER_ERROR:
    case LDAP_NO_RESULTS_RETURNED:
        return Result::noSuchObject;
    case LDAP_SIZELIMIT_EXCEEDED:
        return Result::sizeLimitExceeded;
    case LDAP_INVALID_CREDENTIALS:
        return Result::invalidCredentials;
    case LDAP_USER_CANCELLED:
        return Result::cancelled;
    default:
        return Result::connectError;
    }
}

} // namespace tavo::ldap
