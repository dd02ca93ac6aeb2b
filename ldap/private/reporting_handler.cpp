#include "ldap/private/reporting_handler.h"

#include <ldap/private/failure_details.h>

#include <utility>
#include <vector>

namespace tavo::ldap {

SearchHandler reportingHandler(
    std::shared_ptr<SearchReport>& report, std::shared_ptr<Connection> connection, SearchHandler handler)
{
    if (!report) {
        return handler;
    }
    const auto searchsOwn = std::make_shared<SearchReport>();
    const auto callers = std::exchange(report, searchsOwn);
    return [searchsOwn, callers, connection = std::move(connection), handler = std::move(handler)](
               Result result, std::vector<SearchEntry> entries) mutable {
        if (result == Result::cancelled) {
            // Whoever ends the search does so while its thread may be writing to its own report.
            *callers = cancelledReport(connection.get());
        } else if (result != Result::moreResults) {
            *callers = std::move(*searchsOwn);
        }
        handler(result, std::move(entries));
    };
}

} // namespace tavo::ldap
