#pragma once

#include <ldap/connect_failure.h>
#include <ldap/connection_options.h>
#include <ldap/private/client_call.h>
#include <ldap/private/wire/interruption.h>
#include <ldap/private/wire/socket.h>
#include <ldap/private/wire/time_limit.h>

#include <QString>

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

namespace tavo::ldap {

class BaseError;
struct SearchReport;

/// One connection with options: owns its socket, keeps its limits, and knows why it ended. Shared by the session
/// and the layers in the client library, which may outlive it. Thread-safe.
///
/// The socket is shut down and closed under one mutex, so that no other socket that has got its number is hit.
class Connection final : public Interruptible, public Activity
{
public:
    /// \param url of the server, for those who are told why the connection failed
    static std::shared_ptr<Connection> make(const ConnectionOptions& options, QString url);

    const ConnectionOptions& options() const { return m_options; }

    /// Takes a connected socket. \return its number
    int take(Socket socket);

    /// Closes the socket, if this is its number. Never blocks. \return whether it is
    bool close(int socket) noexcept;

    /// The socket is another's to close.
    void disown() noexcept;

    /// Like recv(2) and send(2), but wait as long as the time limit of the calling thread allows, and no longer
    /// than to the interruption. A thread without a limit doesn't wait: it is closing the connection.
    ssize_t receive(int socket, char* to, std::size_t size) noexcept;
    ssize_t send(int socket, std::string_view bytes) noexcept;

    /// The calling thread is about to wait for the server in the client library itself.
    void aboutToRead() noexcept;

    /// What the TLS handshake may take yet of the time to connect.
    void setHandshakeTime(TimeLimit::Duration left) { m_handshakeTime = left; }

    /// On this thread. What is known of a connection that fails between the two is that.
    void handshakeBegins() noexcept;
    void handshakeSucceeds() noexcept { m_isInHandshake = false; }

    /// Null for none.
    const Interruption* interruption() const noexcept { return m_interruption.get(); }

    /// From now on it is over, for the first of the reasons that are given.
    void interrupt() noexcept override;
    void endByLimit(Limit limit, TimeLimit::Duration duration) noexcept;
    void endByMessageSize() noexcept;
    void endByAnswerSize() noexcept;
    void endByTlsVersion() noexcept;

    /// Whether it has ended for one of these reasons.
    bool isOver() const noexcept;

    /// What a call of the client library has returned, or that of the connection's end, where it has failed for
    /// that.
    ClientCallResult outcome(ClientCallResult returned) const noexcept;

    /// Tells the error why the connection ended, if it has.
    void explain(BaseError& error) const;

    /// The same for the report of a cancelled search, which tells of an interruption only.
    void explain(SearchReport& cancelled) const;

private:
    enum class End
    {
        none,
        interruption,
        limit,
        messageSize,
        answerSize,
        tlsVersion,
    };

    Connection(const ConnectionOptions& options, QString url);

    void end(End reason, Limit limit = Limit::connect, TimeLimit::Duration duration = {}) noexcept;
    bool isTooLate() noexcept;
    bool awaitReady(int socket, short events) noexcept;
    int errorOfEnd() const noexcept;
    QString reason() const;

    const ConnectionOptions m_options;
    const QString m_url;
    std::shared_ptr<Interruption> m_interruption;

    mutable std::mutex m_mutex;
    Socket m_socket;
    End m_end = End::none;
    Limit m_endLimit = Limit::connect;
    TimeLimit::Duration m_endDuration;

    TimeLimit::Duration m_handshakeTime;
    std::atomic<bool> m_isInHandshake = false;
};

/// The same for a connection that may have no options (null); there is no more to say then.
inline ClientCallResult outcomeOf(const Connection* connection, ClientCallResult returned) noexcept
{
    return connection != nullptr ? connection->outcome(returned) : returned;
}

inline void explainEnd(const Connection* connection, BaseError& error)
{
    if (connection != nullptr) {
        connection->explain(error);
    }
}

/// The error of a call that has failed, as `returned` has it unless the connection has ended for a reason.
BaseError endedCall(const Connection* connection, ClientCallResult returned, QString context);

} // namespace tavo::ldap
