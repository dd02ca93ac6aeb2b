#include "ldap/private/handle.h"

#include <ldap/error.h>
#include <ldap/private/client_call.h>
#include <ldap/private/client_library.h>
#include <ldap/private/positions.h>
#include <ldap/private/search_threads.h>
#include <ldap/private/tls.h>
#include <ldap/private/wire/connection.h>
#include <ldap/private/wire/layers.h>
#include <tavo_utils/assert.h>
#include <tavo_utils/log.h>
#include <tavo_utils/scope_guard.h>

#include <openldap.h>

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <utility>

namespace tavo::ldap {

namespace {

/// Whether the client library's TLS layer, which its first TLS context sets up, is ready. Guarded by the mutex of
/// the first use.
bool tlsIsSetUp = false;

/// Puts the new handle into `handle` also when the call fails, so that whatever it left is freed.
void initialize(LdapHandle& handle, const utils::Url& url)
{
    const std::string text = url.toStdString();
    LDAP* ld = nullptr;
    const auto [rc, systemError] = callClient([&] { return ldap_initialize(&ld, text.c_str()); });
    handle.reset(ld);
    if (rc != LDAP_SUCCESS) {
        throw BaseError(rc, QStringLiteral("init"), systemError);
    }
}

/// The same on a connected socket, whose connection owns it.
void initialize(LdapHandle& handle, const QString& url, int socket)
{
    const QByteArray text = url.toUtf8();
    LDAP* ld = nullptr;
    // The protocol says how the client library itself would read and write, which the layers do.
    const auto [rc, systemError] =
        callClient([&] { return ldap_init_fd(socket, LDAP_PROTO_TCP, text.constData(), &ld); });
    handle.reset(ld);
    if (rc != LDAP_SUCCESS) {
        throw BaseError(rc, QStringLiteral("init"), systemError);
    }
}

/// The limits that the client library keeps itself.
void setLimits(LDAP* ld, const ConnectionOptions& options)
{
    if (options.answerTimeout) {
        // It takes off what is more than whole milliseconds each time that it waits.
        const auto whole =
            std::min(*options.answerTimeout, TimeLimit::kLongest) + std::chrono::milliseconds(1);
        const auto seconds = std::chrono::floor<std::chrono::seconds>(whole);
        const std::chrono::microseconds rest = whole - seconds;
        const timeval timeout{seconds.count(), rest.count()};
        ldap_set_option(ld, LDAP_OPT_TIMEOUT, &timeout);
    }
    Sockbuf* sockbuf = nullptr;
    if (options.maximumMessageSize && ldap_get_option(ld, LDAP_OPT_SOCKBUF, &sockbuf) == LDAP_OPT_SUCCESS) {
        ber_len_t limit = *options.maximumMessageSize;
        ber_sockbuf_ctrl(sockbuf, LBER_SB_OPT_SET_MAX_INCOMING, &limit);
    }
}

void setOptions(LDAP* ld, bool isSecure, bool ignoreCertificateErrors, const ConnectionOptions* options)
{
    // By design: a failure of the first two carries neither a context nor a system error, unlike TLS ones.
    const int version = LDAP_VERSION3;
    int rc = ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QString(), 0);
    }
    rc = ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QString(), 0);
    }
    setUpTls(ld, isSecure, ignoreCertificateErrors, options);
}

/// Makes and configures a handle.
/// \param make puts a handle with its layers into what it is given, under the lock of the first use
template <class Make>
LdapHandle createHandle(
    Make make, bool isSecure, bool ignoreCertificateErrors, const ConnectionOptions* options)
{
    LdapHandle handle(nullptr, &destroyHandle);
    MutexLocker lock(initMutex());
    make(handle);
    if (tlsIsSetUp) {
        lock.unlock();
        setOptions(handle.get(), isSecure, ignoreCertificateErrors, options);
        return handle;
    }
    setOptions(handle.get(), isSecure, ignoreCertificateErrors, options);
    tlsIsSetUp = true;
    return handle;
}

} // namespace

LdapHandle createHandle(const utils::Url& url, bool isSecure, bool ignoreCertificateErrors)
{
    const auto make = [&](LdapHandle& handle) {
        initialize(handle, url);
        addLayers(handle.get());
    };
    return createHandle(make, isSecure, ignoreCertificateErrors, nullptr);
}

LdapHandle createHandle(const QString& url, Socket socket, const std::shared_ptr<Connection>& connection,
    bool isSecure, bool ignoreCertificateErrors)
{
    const auto make = [&](LdapHandle& handle) {
        initialize(handle, url, connection->take(std::move(socket)));
        utils::ScopeGuard disown([&] {
            // Now the client library closes it.
            connection->disown();
        });
        addLayers(handle.get(), connection);
        disown.dismiss();
        connectNoMore(handle.get());
    };
    LdapHandle handle = createHandle(make, isSecure, ignoreCertificateErrors, &connection->options());
    setLimits(handle.get(), connection->options());
    return handle;
}

LdapHandle duplicateHandle(LDAP* ld)
{
    LdapHandle duplicate(nullptr, &destroyHandle);
    const auto [rc, systemError] = callClient([&] {
        duplicate.reset(ldap_dup(ld));
        return duplicate ? LDAP_SUCCESS : LDAP_NO_MEMORY;
    });
    if (rc != LDAP_SUCCESS) {
        throw BaseError(rc, QStringLiteral("ldap_dup"), systemError);
    }
    return duplicate;
}

void destroyHandle(LDAP* ld)
{
    const int rc = callClient([&] { return ldap_destroy(ld); }).code;
    if (rc != LDAP_SUCCESS) {
        struct destroyLdap
        {};
        const search_threads::NotAwaited whileLogging;
        TAVO_LOG_DEBUG(log::scopeTag<struct destroyLdap>(), u"Error destroying ldap: %1",
            BaseError::ldapErrorString(rc));
    }
}

int getLdapError(LDAP* ld)
{
    int code = 0;
    if (ldap_get_option(ld, LDAP_OPT_RESULT_CODE, &code) != LDAP_OPT_SUCCESS) {
        assertFailure(positions::resultCodeUnreadable, "rc == 0");
        return 0;
    }
    return code;
}

bool hasLostConnection(LDAP* ld)
{
    int socket = -1;
    ldap_get_option(ld, LDAP_OPT_DESC, &socket);
    char next = 0;
    const ssize_t count = socket < 0 ? 0 : recv(socket, &next, 1, MSG_PEEK | MSG_DONTWAIT);
    return count == 0 || (count < 0 && errno != EAGAIN);
}

void stopReading(LDAP* ld)
{
    Sockbuf* connection = nullptr;
    if (ldap_get_option(ld, LDAP_OPT_SOCKBUF, &connection) == LDAP_OPT_SUCCESS && connection != nullptr) {
        // The longest message that is accepted: shorter than any. A longer one ends the connection. Another
        // thread may be reading the number in the client library; it is a word, and either value will do.
        ber_len_t limit = 1;
        ber_sockbuf_ctrl(connection, LBER_SB_OPT_SET_MAX_INCOMING, &limit);
    }
}

} // namespace tavo::ldap
