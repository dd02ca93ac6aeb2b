#pragma once

#include <QString>

#include <vector>

namespace tavo::ldap {

/// Why there is no usable connection to the server, as far as it is known. A plain value type. More kinds may
/// be added.
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
        /// port without TLS, a version of TLS that isn't good enough.
        tls,

        // The others are those of connections with `ConnectionOptions`.

        /// The options contradict themselves; nothing was sent.
        invalidOptions,

        /// The server's name couldn't be looked up.
        unknownHost,

        /// No address of the server could be connected to.
        unreachable,

        /// A limit of time has passed: `detail` says which one.
        timedOut,

        /// An `Interrupter` has ended the connection.
        interrupted,

        /// The server sent more than the options allow.
        tooMuch,
    };

    /// An address that couldn't be connected to.
    struct Try
    {
        /// Such as `192.0.2.7:389`, `[2001:db8::7]:389`, or the path of a socket.
        QString address;

        /// The operating system's error code, `errno`: ECONNREFUSED when nobody listens there, ETIMEDOUT when
        /// there was no answer in time.
        int systemError;
    };

    Kind kind = Kind::none;

    /// The URL, or list of URLs, that was tried; empty when none was, or when nothing is known.
    QString address;

    /// The reason in words: those of the TLS library for `Kind::tls`. They depend on that library and its
    /// version, so show them and don't compare them. A server that has proved its identity can put in words
    /// of its own. May be empty.
    QString detail;

    /// The addresses that were tried in vain, in their order. Only of connections with `ConnectionOptions`;
    /// others don't know.
    std::vector<Try> tries{};
};

} // namespace tavo::ldap
