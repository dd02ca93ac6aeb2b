#pragma once

#include <ldap.h>

#include <QString>

namespace tavo::ldap {

class BaseError;
class Connection;
struct SearchReport;

/// Forgets what the handle keeps about an earlier failure, so that it isn't taken for a later one's.
void clearFailureDetails(LDAP* ld);

/// Completes an error of the handle's last call by what the handle keeps about it: the server's words for a
/// result code of the server's, the TLS library's for a secure connection that failed. Leaves out what there
/// is no memory for.
/// \param secret what a hostile server may send back; a text that contains it literally is withheld
void addFailureDetails(BaseError& error, LDAP* ld, bool isSecure, const QString& secret = {});

/// Whether the handle's connection speaks TLS, or will by its URL.
bool isSecure(LDAP* ld);

/// Makes the report of a search that an error has ended; a loss stays in it.
void fillReport(SearchReport& report, const BaseError& error);

/// The report of a search that was cancelled; it says so if an interruption of its connection was why.
/// \param connection may be null
SearchReport cancelledReport(const Connection* connection);

} // namespace tavo::ldap
