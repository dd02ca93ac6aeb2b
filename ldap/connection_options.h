#pragma once

#include <ldap/interrupter.h>

#include <QString>

#include <chrono>
#include <cstddef>
#include <optional>

namespace tavo::ldap {

/// A version of TLS (RFC 5246, RFC 8446), the older first.
enum class TlsVersion
{
    tls10,
    tls11,
    tls12,
    tls13,
};

/// What a host says about one connection, beside `Settings`: how long it may take, whom it trusts, how much it
/// may send, and how to end it from another thread.
///
/// A plain value type. Where everything is absent, a session is made exactly as without options. With any of
/// them it connects in its constructor, by itself: it tries all addresses of the server's name and, where one
/// is slow to answer, several at a time. It connects once: when the connection is lost, every later call fails
/// at once, and the host makes a new session.
///
/// The host's TLS configuration and keepalive hold as for any session; `SOCKET_BIND_ADDRESSES` of `ldap.conf` doesn't.
///
/// A limit of time that has passed, or an interruption, ends the connection. The call that it ended fails with
/// `LDAP_TIMEOUT` or `LDAP_USER_CANCELLED`, and `ConnectFailure` says which limit it was and how long. So does
/// every later call.
struct ConnectionOptions
{
    /// How long it may take to be connected: TCP to all addresses, and the TLS handshake, that of StartTLS
    /// included. Looking up the server's name is not: the system's resolver bounds that. Absent: the bounds of
    /// the system (about two minutes for TCP), and none for the handshake.
    std::optional<std::chrono::milliseconds> connectTimeout = std::nullopt;

    /// How long the answer to a bind, StartTLS or who-am-I may take, to its last byte. While another search of
    /// the connection waits for its page, the time begins when that page has come. Absent: `TIMEOUT` of
    /// `ldap.conf`, or no bound.
    std::optional<std::chrono::milliseconds> answerTimeout = std::nullopt;

    /// How long a server may send no byte while a paged search waits for it. Behind a bind or who-am-I that waits
    /// for its answer a search waits as long as that does, so set `answerTimeout`, too. Absent: no bound.
    std::optional<std::chrono::milliseconds> pageSilenceTimeout = std::nullopt;

    /// The authorities that sign the server's certificate, in place of the host's: a PEM file, or a folder as
    /// `openssl rehash` makes it. Whatever else the host has configured for TLS holds. Has no effect where
    /// certificate errors are ignored.
    std::optional<QString> trustedCertificates = std::nullopt;

    /// The client's own certificate, a PEM file, for servers that ask for one.
    std::optional<QString> clientCertificate = std::nullopt;

    /// Its private key, a PEM file. Absent: the file of the certificate has it, too.
    std::optional<QString> clientKey = std::nullopt;

    /// The oldest version of TLS that is good enough. Checked after the handshake and before anything else is
    /// sent; a version that can't be found out isn't good enough. Has no effect without TLS.
    std::optional<TlsVersion> minimumTlsVersion = std::nullopt;

    /// The longest message that is taken from the server, in bytes. A longer one ends the connection.
    std::optional<std::size_t> maximumMessageSize = std::nullopt;

    /// The same for all messages that answer one request: a page of a paged search, or a blocking search.
    std::optional<std::size_t> maximumAnswerSize = std::nullopt;

    /// Ends the connection, and whatever waits for it, from any thread.
    std::optional<Interrupter> interrupter = std::nullopt;

    /// Whether everything is absent.
    bool isEmpty() const
    {
        return !connectTimeout && !answerTimeout && !pageSilenceTimeout && !trustedCertificates &&
               !clientCertificate && !clientKey && !minimumTlsVersion && !maximumMessageSize &&
               !maximumAnswerSize && !interrupter;
    }
};

} // namespace tavo::ldap
