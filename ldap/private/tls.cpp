#include "ldap/private/tls.h"

#include <ldap/error.h>
#include <ldap/private/client_call.h>
#include <tavo_utils/scope_guard.h>

#include <openssl/err.h>

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace tavo::ldap {

namespace {

void createTlsContext(LDAP* ld)
{
    const int clientSide = 0;
    const auto [rc, systemError] =
        callClient([&] { return ldap_set_option(ld, LDAP_OPT_X_TLS_NEWCTX, &clientSide); });
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QStringLiteral("set LDAP_OPT_X_TLS_NEWCTX"), systemError);
    }
}

enum class Type
{
    text,
    number,
    bytes
};

struct TlsOption
{
    int option;
    Type type;
    const char* name;
    /// Says which certificates of a server are good.
    bool isForVerification = false;
};

/// By design: the client library keeps these options of the host's configuration for its default context; a
/// handle that makes a context of its own begins without them. It would trust nobody (GnuTLS) or OpenSSL's
/// default store, and ignore revocations, limits of the protocol and the client's certificate. What the host
/// says in CRLCHECK, REQSAN and PEERKEY_HASH a handle inherits.
///
/// An option that the TLS library has no use for can be read and set like any other (2.5.13, both libraries).
constexpr TlsOption inheritedByNoHandle[] = {
    {LDAP_OPT_X_TLS_CACERTFILE, Type::text, "LDAP_OPT_X_TLS_CACERTFILE", true},
    {LDAP_OPT_X_TLS_CACERTDIR, Type::text, "LDAP_OPT_X_TLS_CACERTDIR", true},
    {LDAP_OPT_X_TLS_CACERT, Type::bytes, "LDAP_OPT_X_TLS_CACERT", true},
    {LDAP_OPT_X_TLS_CRLFILE, Type::text, "LDAP_OPT_X_TLS_CRLFILE", true},
    {LDAP_OPT_X_TLS_CERTFILE, Type::text, "LDAP_OPT_X_TLS_CERTFILE"},
    {LDAP_OPT_X_TLS_KEYFILE, Type::text, "LDAP_OPT_X_TLS_KEYFILE"},
    {LDAP_OPT_X_TLS_CERT, Type::bytes, "LDAP_OPT_X_TLS_CERT"},
    {LDAP_OPT_X_TLS_KEY, Type::bytes, "LDAP_OPT_X_TLS_KEY"},
    {LDAP_OPT_X_TLS_CIPHER_SUITE, Type::text, "LDAP_OPT_X_TLS_CIPHER_SUITE"},
    {LDAP_OPT_X_TLS_PROTOCOL_MIN, Type::number, "LDAP_OPT_X_TLS_PROTOCOL_MIN"},
    {LDAP_OPT_X_TLS_PROTOCOL_MAX, Type::number, "LDAP_OPT_X_TLS_PROTOCOL_MAX"},
    {LDAP_OPT_X_TLS_ECNAME, Type::text, "LDAP_OPT_X_TLS_ECNAME"},
};

/// Carries out a call that reads or sets the option. It must leave nothing out: a context without the option
/// might accept whom the host refuses.
template <class Call>
void callOrThrow(const char* verb, const TlsOption& option, Call call)
{
    errno = 0;
    const int rc = call();
    const int systemError = errno;
    // When memory is short, the client library leaves the value out and reports success.
    const int code = rc == LDAP_OPT_SUCCESS && systemError == ENOMEM ? LDAP_NO_MEMORY : rc;
    if (code != LDAP_OPT_SUCCESS) {
        throw BaseError(code, QLatin1String(verb) + QLatin1String(option.name), systemError);
    }
}

void read(const TlsOption& option, void* value)
{
    callOrThrow("get ", option, [&] { return ldap_get_option(nullptr, option.option, value); });
}

void set(LDAP* ld, const TlsOption& option, const void* value)
{
    callOrThrow("set ", option, [&] { return ldap_set_option(ld, option.option, value); });
}

/// Each of these returns whether the host has set the option.
bool copyText(LDAP* ld, const TlsOption& option)
{
    char* text = nullptr;
    const utils::ScopeGuard freeText([&] { ldap_memfree(text); });
    read(option, static_cast<void*>(&text));
    if (text == nullptr) {
        return false;
    }
    set(ld, option, text);
    return true;
}

bool copyNumber(LDAP* ld, const TlsOption& option)
{
    int number = 0;
    read(option, &number);
    if (number == 0) {
        return false;
    }
    set(ld, option, &number);
    return true;
}

bool copyBytes(LDAP* ld, const TlsOption& option)
{
    berval bytes{};
    const utils::ScopeGuard wipeBytes([&] {
        if (bytes.bv_val != nullptr) {
            // It may be a private key.
            explicit_bzero(bytes.bv_val, bytes.bv_len);
            ber_memfree(bytes.bv_val);
        }
    });
    read(option, &bytes);
    if (bytes.bv_val == nullptr) {
        return false;
    }
    set(ld, option, &bytes);
    return true;
}

bool verifiesCertificates(LDAP* ld)
{
    int requirement = LDAP_OPT_X_TLS_HARD;
    ldap_get_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &requirement);
    return requirement != LDAP_OPT_X_TLS_NEVER;
}

/// Whether the program has set, for all handles, that connections are made with TLS whatever the URL says.
bool alwaysUsesTls(LDAP* ld)
{
    int mode = LDAP_OPT_X_TLS_NEVER;
    ldap_get_option(ld, LDAP_OPT_X_TLS, &mode);
    return mode == LDAP_OPT_X_TLS_HARD;
}

/// Gives a handle what the host has configured for TLS, for its next context.
class HostsOptions
{
public:
    explicit HostsOptions(LDAP* ld)
        : m_ld(ld)
    {}
    ~HostsOptions()
    {
        // The client library would never free them.
        for (const int option : m_copiedBytes) {
            ldap_set_option(m_ld, option, nullptr);
        }
    }
    HostsOptions(const HostsOptions&) = delete;
    HostsOptions& operator=(const HostsOptions&) = delete;

    /// A handle that verifies nothing does without authorities and revocations, so that no missing file of
    /// theirs can stop it.
    /// \return whether there is anything
    bool copyAll()
    {
        const bool isVerifying = verifiesCertificates(m_ld);
        bool found = false;
        for (const TlsOption& option : inheritedByNoHandle) {
            if (isVerifying || !option.isForVerification) {
                found = copy(option) || found;
            }
        }
        return found;
    }

private:
    bool copy(const TlsOption& option)
    {
        switch (option.type) {
        case Type::text:
            return copyText(m_ld, option);
        case Type::number:
            return copyNumber(m_ld, option);
        case Type::bytes:
            m_copiedBytes.reserve(m_copiedBytes.size() + 1);
            if (!copyBytes(m_ld, option)) {
                return false;
            }
            m_copiedBytes.push_back(option.option);
            return true;
        }
        return false;
    }

    LDAP* m_ld;
    std::vector<int> m_copiedBytes;
};

} // namespace

void setUpTls(LDAP* ld, bool isSecure, bool ignoreCertificateErrors)
{
    const int requireCertificate = ignoreCertificateErrors ? LDAP_OPT_X_TLS_NEVER : LDAP_OPT_X_TLS_HARD;
    const auto [rc, systemError] =
        callClient([&] { return ldap_set_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &requireCertificate); });
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QStringLiteral("set LDAP_OPT_X_TLS_REQUIRE_CERT"), systemError);
    }
    HostsOptions hostsOptions(ld);
    if (isSecure || alwaysUsesTls(ld)) {
        hostsOptions.copyAll();
    }
    // The requirement takes effect only in a TLS context that is made after it.
    createTlsContext(ld);
}

void refusePlainConnections(LDAP* ld)
{
    const int always = LDAP_OPT_X_TLS_HARD;
    ldap_set_option(ld, LDAP_OPT_X_TLS, &always);
    // No socket: a handle without a context would make its first connection with that of the process.
    ldap_set_option(ld, LDAP_OPT_URI, "ldapi://%2Fdev%2Fnull");
    int socket = -1;
    ldap_get_option(ld, LDAP_OPT_DESC, &socket);
    if (socket >= 0) {
        shutdown(socket, SHUT_RDWR);
    }
}

void prepareStartTls(LDAP* ld)
{
    utils::ScopeGuard refuse([&] { refusePlainConnections(ld); });
    HostsOptions hostsOptions(ld);
    if (hostsOptions.copyAll()) {
        createTlsContext(ld);
    }
    refuse.dismiss();
}

void clearTlsErrors() { ERR_clear_error(); }

void throwTlsErrorIfAny(int ldapCode, int systemError)
{
    // An error of another OpenSSL library is consumed with this and tells nothing.
    const unsigned long sslError = ERR_get_error();
    if (ERR_GET_LIB(sslError) == ERR_LIB_SSL) {
        throw TlsError(sslError, ldapCode, systemError);
    }
}

} // namespace tavo::ldap
