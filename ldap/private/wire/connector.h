#pragma once

#include <ldap/connect_failure.h>
#include <ldap/private/wire/socket.h>
#include <ldap/private/wire/time_limit.h>

#include <QByteArray>
#include <QString>

#include <sys/socket.h>

#include <optional>
#include <vector>

namespace tavo::ldap {

class Interruption;

/// Where a socket can connect to.
struct SocketAddress
{
    sockaddr_storage storage{};
    socklen_t size = 0;
    /// For people: `192.0.2.7:389`, `[2001:db8::7]:389`, or a path.
    QString text;
};

/// The server of one LDAP URL.
struct Server
{
    /// A name or an address without brackets; the path of a socket for `ldapi`; empty for its default.
    QByteArray host;
    QByteArray port;
    bool isLocal = false;

    /// \throws BaseError when the text is no URL for the client library
    static Server ofUrl(const QString& url);

    /// Looks the name up, which blocks.
    /// \throws BaseError (ConnectFailure::Kind::unknownHost), std::bad_alloc
    std::vector<SocketAddress> addresses() const;
};

/// Connects to one of several addresses. They are tried in their order; while one doesn't answer, the next is
/// tried beside it (RFC 8305). The first connection that comes about is taken.
class Connector
{
public:
    /// \param addresses at least one
    /// \param interruption may be null
    Connector(std::vector<SocketAddress> addresses, std::optional<TimeLimit::Clock::time_point> deadline,
        const Interruption* interruption);

    /// Blocks.
    /// \return a blocking socket; without a number when none could be had
    Socket connect();

    /// The addresses that have failed; those that were being tried at the end, too (ETIMEDOUT, or ECANCELED after
    /// an interruption).
    const std::vector<ConnectFailure::Try>& tries() const { return m_tries; }

private:
    struct Attempt
    {
        Socket socket;
        std::size_t address;
    };

    Socket startNext();
    Socket takeFinished();
    void wait();
    bool mustStop() const;
    void giveUp(int systemError);

    std::vector<SocketAddress> m_addresses;
    std::optional<TimeLimit::Clock::time_point> m_deadline;
    const Interruption* m_interruption;
    TimeLimit::Clock::duration m_attemptDelay;
    std::size_t m_next = 0;
    TimeLimit::Clock::time_point m_nextStart;
    std::vector<Attempt> m_attempts;
    std::vector<ConnectFailure::Try> m_tries;
};

} // namespace tavo::ldap
