#pragma once

#include <ldap/search_context.h>
#include <ldap/search_report.h>

#include <memory>

namespace tavo::ldap {

class Connection;

/// Makes a session's search fill the caller's report only together with the final call of the caller's
/// handler.
///
/// The search's thread may still be reading when another thread ends the search for the caller, so it gets a
/// report of its own.
/// \param report the caller's, replaced by the search's own; may be null, and the handler is then returned
/// \param connection null for one without options
SearchHandler reportingHandler(
    std::shared_ptr<SearchReport>& report, std::shared_ptr<Connection> connection, SearchHandler handler);

} // namespace tavo::ldap
