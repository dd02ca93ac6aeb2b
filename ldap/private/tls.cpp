#include "ldap/private/tls.h"

#include <ldap/error.h>
#include <ldap/private/client_call.h>
#include <tavo_utils/scope_guard.h>

#include <openssl/err.h>

#include <QFileInfo>

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>
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

/// No socket of a server can be there.
constexpr const char* kNoServer = "ldapi://%2Fdev%2Fnull";

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

/// Whether the connection's own option takes the place of the host's.
bool isReplaced(int option, const ConnectionOptions* options)
{
    if (options == nullptr) {
        return false;
    }
    switch (option) {
    case LDAP_OPT_X_TLS_CACERTFILE:
    case LDAP_OPT_X_TLS_CACERTDIR:
    case LDAP_OPT_X_TLS_CACERT:
        return options->trustedCertificates.has_value();
    case LDAP_OPT_X_TLS_CERTFILE:
    case LDAP_OPT_X_TLS_KEYFILE:
    case LDAP_OPT_X_TLS_CERT:
    case LDAP_OPT_X_TLS_KEY:
        return options->clientCertificate.has_value();
    default:
        return false;
    }
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
    /// theirs can stop it. What the connection has options of its own for isn't copied.
    /// \return whether there is anything
    bool copyAll(const ConnectionOptions* options)
    {
        const bool isVerifying = verifiesCertificates(m_ld);
        bool found = false;
        for (const TlsOption& option : inheritedByNoHandle) {
            const bool isWanted = isVerifying || !option.isForVerification;
            if (isWanted && !isReplaced(option.option, options)) {
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

void setText(LDAP* ld, int option, const char* name, const QString& text)
{
    set(ld, {option, Type::text, name}, text.toUtf8().constData());
}

/// As the client library writes it.
int numberOf(TlsVersion version)
{
    switch (version) {
    case TlsVersion::tls10:
        return LDAP_OPT_X_TLS_PROTOCOL_TLS1_0;
    case TlsVersion::tls11:
        return LDAP_OPT_X_TLS_PROTOCOL_TLS1_1;
    case TlsVersion::tls12:
        return LDAP_OPT_X_TLS_PROTOCOL_TLS1_2;
    case TlsVersion::tls13:
        return LDAP_OPT_X_TLS_PROTOCOL_TLS1_3;
    }
    return LDAP_OPT_X_TLS_PROTOCOL_TLS1_3;
}

/// The stricter of the host's minimum and the connection's own. GnuTLS ignores it, so the version is looked at
/// after the handshake, too.
void setMinimumVersion(LDAP* ld, TlsVersion version)
{
    int hosts = 0;
    ldap_get_option(nullptr, LDAP_OPT_X_TLS_PROTOCOL_MIN, &hosts);
    const int minimum = std::max(hosts, numberOf(version));
    set(ld, {LDAP_OPT_X_TLS_PROTOCOL_MIN, Type::number, "LDAP_OPT_X_TLS_PROTOCOL_MIN"}, &minimum);
}

/// Gives a handle what the connection has options of its own for, for its next context.
/// \return whether there is anything
bool setOwnOptions(LDAP* ld, const ConnectionOptions* options)
{
    if (options == nullptr) {
        return false;
    }
    if (options->trustedCertificates && verifiesCertificates(ld)) {
        const bool isFolder = QFileInfo(*options->trustedCertificates).isDir();
        setText(ld, isFolder ? LDAP_OPT_X_TLS_CACERTDIR : LDAP_OPT_X_TLS_CACERTFILE, "trustedCertificates",
            *options->trustedCertificates);
    }
    if (options->clientCertificate) {
        setText(ld, LDAP_OPT_X_TLS_CERTFILE, "clientCertificate", *options->clientCertificate);
        setText(ld, LDAP_OPT_X_TLS_KEYFILE, "clientKey",
            options->clientKey.value_or(*options->clientCertificate));
    }
    if (options->minimumTlsVersion) {
        setMinimumVersion(ld, *options->minimumTlsVersion);
    }
    return options->trustedCertificates || options->clientCertificate || options->minimumTlsVersion;
}

QString ownedText(char* text)
{
    const utils::ScopeGuard freeText([&] { ldap_memfree(text); });
    return QString::fromUtf8(text);
}

} // namespace

bool startsWithTls(LDAP* ld, bool isSecure) { return isSecure || alwaysUsesTls(ld); }

void setUpTls(LDAP* ld, bool isSecure, bool ignoreCertificateErrors, const ConnectionOptions* options)
{
    const int requireCertificate = ignoreCertificateErrors ? LDAP_OPT_X_TLS_NEVER : LDAP_OPT_X_TLS_HARD;
    const auto [rc, systemError] =
        callClient([&] { return ldap_set_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &requireCertificate); });
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QStringLiteral("set LDAP_OPT_X_TLS_REQUIRE_CERT"), systemError);
    }
    HostsOptions hostsOptions(ld);
    if (startsWithTls(ld, isSecure)) {
        hostsOptions.copyAll(options);
        setOwnOptions(ld, options);
    }
    // The requirement takes effect only in a TLS context that is made after it.
    createTlsContext(ld);
}

void connectNoMore(LDAP* ld)
{
    const int rc = ldap_set_option(ld, LDAP_OPT_URI, kNoServer);
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QStringLiteral("set LDAP_OPT_URI"), 0);
    }
}

void refusePlainConnections(LDAP* ld)
{
    const int always = LDAP_OPT_X_TLS_HARD;
    ldap_set_option(ld, LDAP_OPT_X_TLS, &always);
    // No socket: a handle without a context would make its first connection with that of the process.
    ldap_set_option(ld, LDAP_OPT_URI, kNoServer);
    int socket = -1;
    ldap_get_option(ld, LDAP_OPT_DESC, &socket);
    if (socket >= 0) {
        shutdown(socket, SHUT_RDWR);
    }
}

void prepareStartTls(LDAP* ld, const ConnectionOptions* options)
{
    utils::ScopeGuard refuse([&] { refusePlainConnections(ld); });
    HostsOptions hostsOptions(ld);
    const bool hasHosts = hostsOptions.copyAll(options);
    const bool hasOwn = setOwnOptions(ld, options);
    if (hasHosts || hasOwn) {
        createTlsContext(ld);
    }
    refuse.dismiss();
}

std::optional<TlsFacts> tlsFacts(LDAP* ld)
{
    if (ldap_tls_inplace(ld) == 0) {
        return std::nullopt;
    }
    TlsFacts facts;
    char* text = nullptr;
    if (ldap_get_option(ld, LDAP_OPT_X_TLS_VERSION, static_cast<void*>(&text)) == LDAP_OPT_SUCCESS) {
        facts.version = ownedText(std::exchange(text, nullptr));
    }
    if (ldap_get_option(ld, LDAP_OPT_X_TLS_CIPHER, static_cast<void*>(&text)) == LDAP_OPT_SUCCESS) {
        facts.cipher = ownedText(text);
    }
    berval certificate{};
    const utils::ScopeGuard freeCertificate([&] { ber_memfree(certificate.bv_val); });
    if (ldap_get_option(ld, LDAP_OPT_X_TLS_PEERCERT, &certificate) == LDAP_OPT_SUCCESS) {
        facts.certificate = QByteArray(certificate.bv_val, static_cast<qsizetype>(certificate.bv_len));
    }
    return facts;
}

bool speaksAtLeast(LDAP* ld, TlsVersion version)
{
    char* text = nullptr;
    const utils::ScopeGuard freeText([&] { ldap_memfree(text); });
    if (ldap_get_option(ld, LDAP_OPT_X_TLS_VERSION, static_cast<void*>(&text)) != LDAP_OPT_SUCCESS ||
        text == nullptr) {
        return false;
    }
    // "TLSv1.2" or "TLS1.2"; OpenSSL calls the first "TLSv1".
    const std::string_view name = text;
    const std::pair<std::string_view, TlsVersion> known[] = {{"TLSv1", TlsVersion::tls10},
        {"TLS1.0", TlsVersion::tls10}, {"TLSv1.1", TlsVersion::tls11}, {"TLS1.1", TlsVersion::tls11},
        {"TLSv1.2", TlsVersion::tls12}, {"TLS1.2", TlsVersion::tls12}, {"TLSv1.3", TlsVersion::tls13},
        {"TLS1.3", TlsVersion::tls13}};
    return std::any_of(std::begin(known), std::end(known),
        [&](const auto& one) { return one.first == name && one.second >= version; });
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
