#include "ldap/private/wire/socket_layer.h"

#include <ldap/error.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

// The client library's lock on the connections of a handle and its duplicates (ld_conn_mutex) is held while it
// connects, writes, reads and closes, whichever thread does, and so by every caller of the functions below; but
// not during the handshake of StartTLS, when a session has no search yet. The number of the socket can be read
// without that lock, so it is taken back before it is closed.
namespace tavo::ldap {

namespace {

/// Just above the client library's own access to the socket, and below TLS.
constexpr int kLevel = LBER_SBIOD_LEVEL_PROVIDER + 1;
constexpr ber_socket_t kNoSocket = -1;

/// Without memory for its access to the socket, the client library goes on as if it had been added.
bool isConnected(const Sockbuf_IO_Desc* layer) noexcept
{
    if (layer->sbiod_next == nullptr) {
        errno = ENOTCONN;
    }
    return layer->sbiod_next != nullptr;
}

ber_slen_t readSocket(Sockbuf_IO_Desc* layer, void* buffer, ber_len_t size) noexcept
{
    return isConnected(layer) ? LBER_SBIOD_READ_NEXT(layer, buffer, size) : -1;
}

ber_slen_t writeSocket(Sockbuf_IO_Desc* layer, void* data, ber_len_t size) noexcept
{
    return isConnected(layer) ? LBER_SBIOD_WRITE_NEXT(layer, data, size) : -1;
}

int control(Sockbuf_IO_Desc* layer, int option, void* argument) noexcept
{
    return LBER_SBIOD_CTRL_NEXT(layer, option, argument);
}

/// Leaves the layers below, which are closed next, no socket to close.
int closeSocket(Sockbuf_IO_Desc* layer) noexcept
{
    ber_socket_t socket = kNoSocket;
    ber_sockbuf_ctrl(layer->sbiod_sb, LBER_SB_OPT_GET_FD, &socket);
    if (socket == kNoSocket) {
        return 0;
    }
    ber_socket_t none = kNoSocket;
    ber_sockbuf_ctrl(layer->sbiod_sb, LBER_SB_OPT_SET_FD, &none);
    // The connection ends now, also if a forked child has the socket, too.
    shutdown(socket, SHUT_RDWR);
    close(socket);
    return 0;
}

Sockbuf_IO& socketLayer()
{
    static Sockbuf_IO layer{
        .sbi_setup = nullptr,
        .sbi_remove = nullptr,
        .sbi_ctrl = &control,
        .sbi_read = &readSocket,
        .sbi_write = &writeSocket,
        .sbi_close = &closeSocket,
    };
    return layer;
}

/// Called with each connection that has come about, under the lock. Newer client libraries (2.6.10) free all
/// layers of a connection whose TLS handshake fails, this one included, before the next attempt.
int restoreLayer(LDAP*, LDAPURLDesc**, LDAPURLDesc**, void* connection) noexcept
{
    auto* const sockbuf = static_cast<Sockbuf*>(connection);
    if (ber_sockbuf_ctrl(sockbuf, LBER_SB_OPT_HAS_IO, &socketLayer()) == 0) {
        ber_sockbuf_add_io(sockbuf, &socketLayer(), kLevel, nullptr);
    }
    return LDAP_SUCCESS;
}

} // namespace

void addSocketLayer(LDAP* ld)
{
    Sockbuf* connection = nullptr;
    const int rc = ldap_get_option(ld, LDAP_OPT_SOCKBUF, &connection);
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QStringLiteral("get LDAP_OPT_SOCKBUF"), 0);
    }
    const int added = ber_sockbuf_add_io(connection, &socketLayer(), kLevel, nullptr);
    const int systemError = errno;
    if (added != 0) {
        throw BaseError(LDAP_NO_MEMORY, QStringLiteral("ber_sockbuf_add_io"), systemError);
    }
    ldap_set_urllist_proc(ld, &restoreLayer, connection);
}

} // namespace tavo::ldap
