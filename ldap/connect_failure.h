#pragma once

#include <QString>

namespace tavo::ldap {

/// Why there is no usable connection to the server, as far as it is known. A plain value type.
///
/// The LDAP result code alone doesn't tell: an expired certificate and a server that is switched off are both
/// "Can't contact LDAP server".
struct ConnectFailure
{
    enum class Kind
    {
        /// The connection didn't fail, or nothing is known but the result code.
        none,

        /// The URL was refused before anything was sent.
        invalidUrl,

        /// The TLS layer gave up: a certificate that can't be trusted, no protocol or cipher in common, a
        /// port without TLS.
        tls,
    };

    Kind kind = Kind::none;

    /// The URL, or list of URLs, that was tried; empty when none was, or when nothing is known.
    QString address;

    /// The reason in words: those of the TLS library for `Kind::tls`. They depend on that library and its
    /// version, so show them and don't compare them. A server that has proved its identity can put in words
    /// of its own. May be empty.
    QString detail;
};

} // namespace tavo::ldap
