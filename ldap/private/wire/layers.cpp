#include "ldap/private/wire/layers.h"

#include <ldap/error.h>
#include <ldap/private/wire/connection.h>
#include <ldap/private/wire/frame_watch.h>
#include <ldap/private/wire/socket_stream.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

// The client library holds its lock on the connections of a handle and its duplicates (ld_conn_mutex) while it
// connects, reads and closes, and that or the one on their requests (ld_req_mutex) while it writes, whichever
// thread does, and so does every caller of the functions below; but not during the handshake of StartTLS, when a
// session has no search yet. The number of the socket can be read without a lock, so it is taken back before it
// is closed.
namespace tavo::ldap {

namespace {

/// Just above the client library's own access to the socket, and below TLS.
constexpr int kSocketLevel = LBER_SBIOD_LEVEL_PROVIDER + 1;
constexpr int kWatchLevel = LBER_SBIOD_LEVEL_APPLICATION;
constexpr ber_socket_t kNoSocket = -1;

ber_socket_t socketOf(Sockbuf* connection) noexcept
{
    ber_socket_t socket = kNoSocket;
    ber_sockbuf_ctrl(connection, LBER_SB_OPT_GET_FD, &socket);
    return socket;
}

/// A layer whose setup finds no memory stays where it is, without a state.
int keepState(Sockbuf_IO_Desc* layer, void* state) noexcept
{
    layer->sbiod_pvt = state;
    if (state == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

/// What a new layer is told.
struct Setup
{
    bool isEncrypted = false;
    /// Null for a connection without options.
    std::shared_ptr<Connection> connection;
};

/// The messages of one connection.
struct Watch
{
    explicit Watch(std::shared_ptr<Connection> whose)
        : connection(std::move(whose))
        , frames(connection ? limitsOf(connection->options()) : SizeLimits())
    {}

    static SizeLimits limitsOf(const ConnectionOptions& options)
    {
        return {options.maximumMessageSize.value_or(SizeLimits::kNone),
            options.maximumAnswerSize.value_or(SizeLimits::kNone)};
    }

    std::shared_ptr<Connection> connection;
    FrameWatch frames;
};

int makeStream(Sockbuf_IO_Desc* layer, void* argument) noexcept
{
    const auto& setup = *static_cast<const Setup*>(argument);
    return keepState(layer, new (std::nothrow) SocketStream(setup.isEncrypted, setup.connection));
}

int makeWatch(Sockbuf_IO_Desc* layer, void* argument) noexcept
{
    return keepState(layer, new (std::nothrow) Watch(static_cast<const Setup*>(argument)->connection));
}

template <class State>
State* stateOf(const Sockbuf_IO_Desc* layer) noexcept
{
    if (layer->sbiod_pvt == nullptr) {
        errno = ENOMEM;
    }
    return static_cast<State*>(layer->sbiod_pvt);
}

template <class State>
int deleteState(Sockbuf_IO_Desc* layer) noexcept
{
    delete static_cast<State*>(layer->sbiod_pvt);
    layer->sbiod_pvt = nullptr;
    return 0;
}

ber_slen_t readSocket(Sockbuf_IO_Desc* layer, void* buffer, ber_len_t size) noexcept
{
    auto* const stream = stateOf<SocketStream>(layer);
    return stream == nullptr ? -1 : stream->read(socketOf(layer->sbiod_sb), static_cast<char*>(buffer), size);
}

ber_slen_t writeSocket(Sockbuf_IO_Desc* layer, void* data, ber_len_t size) noexcept
{
    auto* const stream = stateOf<SocketStream>(layer);
    return stream == nullptr
               ? -1
               : stream->write(socketOf(layer->sbiod_sb), {static_cast<const char*>(data), size});
}

/// The client library asks whether there are bytes before it waits for the socket.
int controlSocket(Sockbuf_IO_Desc* layer, int option, void* argument) noexcept
{
    auto* const stream = static_cast<SocketStream*>(layer->sbiod_pvt);
    const bool isAsked = option == LBER_SB_OPT_DATA_READY && stream != nullptr;
    switch (isAsked ? stream->readiness() : SocketStream::Readiness::nothing) {
    case SocketStream::Readiness::bytes:
        return 1;
    case SocketStream::Readiness::abandoned:
        // Now those who still wait for this connection see its end.
        shutdown(socketOf(layer->sbiod_sb), SHUT_RDWR);
        break;
    case SocketStream::Readiness::nothing:
        break;
    }
    return LBER_SBIOD_CTRL_NEXT(layer, option, argument);
}

/// Leaves the layers below, which are closed next, no socket to close.
int closeSocket(Sockbuf_IO_Desc* layer) noexcept
{
    auto* const stream = static_cast<SocketStream*>(layer->sbiod_pvt);
    if (stream != nullptr) {
        stream->reset();
    }
    const ber_socket_t socket = socketOf(layer->sbiod_sb);
    if (socket == kNoSocket) {
        return 0;
    }
    ber_socket_t none = kNoSocket;
    ber_sockbuf_ctrl(layer->sbiod_sb, LBER_SB_OPT_SET_FD, &none);
    if (stream != nullptr) {
        stream->close(socket);
    } else {
        shutdown(socket, SHUT_RDWR);
        close(socket);
    }
    return 0;
}

/// \return the `errno` of the end of a connection whose server must not be read any more
int endOf(Connection* connection, FrameWatch::Verdict verdict) noexcept
{
    switch (verdict) {
    case FrameWatch::Verdict::messageTooLong:
        connection->endByMessageSize();
        return EMSGSIZE;
    case FrameWatch::Verdict::answerTooLong:
        connection->endByAnswerSize();
        return EMSGSIZE;
    case FrameWatch::Verdict::good:
    case FrameWatch::Verdict::fatal:
        break;
    }
    return EPROTO;
}

ber_slen_t readWatched(Sockbuf_IO_Desc* layer, void* buffer, ber_len_t size) noexcept
{
    auto* const watch = stateOf<Watch>(layer);
    if (watch == nullptr) {
        return -1;
    }
    const ber_slen_t count = LBER_SBIOD_READ_NEXT(layer, buffer, size);
    if (count <= 0) {
        return count;
    }
    if (!watch->frames.admits({static_cast<const char*>(buffer), static_cast<std::size_t>(count)})) {
        const int systemError = endOf(watch->connection.get(), watch->frames.verdict());
        // The client library keeps the socket of a connection that has failed while it has requests on it.
        shutdown(socketOf(layer->sbiod_sb), SHUT_RDWR);
        errno = systemError;
        return -1;
    }
    return count;
}

/// Wipes what is written. The client library frees requests as they are, and a bind's password would stay in
/// the process.
ber_slen_t writeAndWipe(Sockbuf_IO_Desc* layer, void* data, ber_len_t size) noexcept
{
    const ber_slen_t count = LBER_SBIOD_WRITE_NEXT(layer, data, size);
    if (count > 0) {
        explicit_bzero(data, static_cast<std::size_t>(count));
    }
    return count;
}

int passControl(Sockbuf_IO_Desc* layer, int option, void* argument) noexcept
{
    return LBER_SBIOD_CTRL_NEXT(layer, option, argument);
}

int closeWatch(Sockbuf_IO_Desc* layer) noexcept
{
    if (auto* const watch = static_cast<Watch*>(layer->sbiod_pvt)) {
        watch->frames.reset();
    }
    return 0;
}

Sockbuf_IO& socketLayer()
{
    static Sockbuf_IO layer{
        .sbi_setup = &makeStream,
        .sbi_remove = &deleteState<SocketStream>,
        .sbi_ctrl = &controlSocket,
        .sbi_read = &readSocket,
        .sbi_write = &writeSocket,
        .sbi_close = &closeSocket,
    };
    return layer;
}

Sockbuf_IO& watchLayer()
{
    static Sockbuf_IO layer{
        .sbi_setup = &makeWatch,
        .sbi_remove = &deleteState<Watch>,
        .sbi_ctrl = &passControl,
        .sbi_read = &readWatched,
        .sbi_write = &writeAndWipe,
        .sbi_close = &closeWatch,
    };
    return layer;
}

/// \return 0, or below 0 with `errno`
int addBoth(Sockbuf* connection, Setup setup) noexcept
{
    const int added = ber_sockbuf_add_io(connection, &socketLayer(), kSocketLevel, &setup);
    return added != 0 ? added : ber_sockbuf_add_io(connection, &watchLayer(), kWatchLevel, &setup);
}

/// Called with each connection that has come about, under the lock. Newer client libraries (2.6.10) free all
/// layers of a connection whose TLS handshake fails, these included, before the next attempt.
int restoreLayers(LDAP*, LDAPURLDesc**, LDAPURLDesc**, void* connection) noexcept
{
    auto* const sockbuf = static_cast<Sockbuf*>(connection);
    if (ber_sockbuf_ctrl(sockbuf, LBER_SB_OPT_HAS_IO, &socketLayer()) != 0) {
        return LDAP_SUCCESS;
    }
    void* tlsSession = nullptr;
    ber_sockbuf_ctrl(sockbuf, LBER_SB_OPT_GET_SSL, static_cast<void*>(&tlsSession));
    if (addBoth(sockbuf, {tlsSession != nullptr, nullptr}) != 0) {
        // The client library takes no answer from here; without them the connection is of no use.
        shutdown(socketOf(sockbuf), SHUT_RDWR);
    }
    return LDAP_SUCCESS;
}

/// \return the client library's side of the connection
Sockbuf* addLayersOf(LDAP* ld, const std::shared_ptr<Connection>& connection)
{
    Sockbuf* sockbuf = nullptr;
    const int rc = ldap_get_option(ld, LDAP_OPT_SOCKBUF, &sockbuf);
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QStringLiteral("get LDAP_OPT_SOCKBUF"), 0);
    }
    const int added = addBoth(sockbuf, {false, connection});
    const int systemError = errno;
    if (added != 0) {
        throw BaseError(LDAP_NO_MEMORY, QStringLiteral("ber_sockbuf_add_io"), systemError);
    }
    return sockbuf;
}

} // namespace

void addLayers(LDAP* ld)
{
    Sockbuf* const sockbuf = addLayersOf(ld, nullptr);
    ldap_set_urllist_proc(ld, &restoreLayers, sockbuf);
}

void addLayers(LDAP* ld, const std::shared_ptr<Connection>& connection) { addLayersOf(ld, connection); }

} // namespace tavo::ldap
