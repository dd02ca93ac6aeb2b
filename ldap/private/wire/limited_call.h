#pragma once

#include <ldap/private/client_call.h>
#include <ldap/private/wire/connection.h>
#include <ldap/private/wire/time_limit.h>

#include <ldap.h>

#include <utility>

namespace tavo::ldap {

/// Makes one call of the client library that waits for the server, within a limit of time.
/// \param connection null for one without options, which has none
/// \return what the call returned, or the reason for which the connection has ended
template <class Call>
ClientCallResult callWithin(Connection* connection, Limit limit, TimeLimit::Duration duration, Call&& call)
{
    if (connection == nullptr) {
        return callClient(std::forward<Call>(call));
    }
    const TimeLimit timeLimit(connection, limit, duration);
    const ClientCallResult returned = callClient(std::forward<Call>(call));
    // By the client library's own clock. Whether the server has taken the request nobody knows, so nothing more
    // can be asked. After a search something can.
    if (returned.code == LDAP_TIMEOUT && duration && limit == Limit::answer) {
        connection->endByLimit(timeLimit.limit(), timeLimit.duration());
    }
    if (returned.code == LDAP_SUCCESS && limit == Limit::answer && connection->isOver()) {
        // The client library's success without an answer, when another thread has seen the connection end.
        return connection->outcome({LDAP_SERVER_DOWN, returned.systemError});
    }
    return connection->outcome(returned);
}

} // namespace tavo::ldap
