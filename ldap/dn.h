#pragma once

#include <ldap/export.h>

#include <QString>

namespace tavo::ldap {

/// The values of the first RDN of a DN, in the client library's user-friendly form:
/// `cn=John Smith,ou=People,dc=corp` gives `John Smith`.
///
/// Bytes outside ASCII and a few inside come back escaped as `\XX`: U+00FC becomes `\C3\BC`. Several values
/// are joined by ` + `. Thread-safe.
/// \throws BaseError when the DN can't be parsed; with code 0 when it is empty
TAVO_LDAP_EXPORT QString dnFirstItem(const QString& dn);

} // namespace tavo::ldap
