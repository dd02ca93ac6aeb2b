// tls_program raw|session CONNECTION STRICTNESS URL: connects, binds anonymously and prints `accepted` or
// `refused` and the reason. CONNECTION is `plain`, `StartTLS` or `ldaps`, STRICTNESS `strict` or `lenient`.
//
// `raw` uses nothing but libldap and its global options, as the tools of OpenLDAP do; `session` uses a Session.
// Both get their configuration from the environment, which libldap reads once in a process, and from these
// variables, which name PEM files: TAVO_CACERT, TAVO_CERT, TAVO_KEY. Their contents become options of libldap.
#include <ldap/session.h>

#include <ldap.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

struct Attempt
{
    std::string connection;
    bool isStrict;
    std::string url;
};

void check(int rc, const char* what)
{
    if (rc != LDAP_SUCCESS)
        throw std::runtime_error(std::string(what) + ": " + ldap_err2string(rc));
}

void setGlobally(int option, const char* variable, int (*encode)(const char* path, unsigned char** der))
{
    const char* const path = std::getenv(variable);
    if (path == nullptr)
        return;
    unsigned char* der = nullptr;
    const int size = encode(path, &der);
    if (size <= 0)
        throw std::runtime_error(std::string("cannot read ") + path);
    const berval bytes{static_cast<ber_len_t>(size), reinterpret_cast<char*>(der)};
    check(ldap_set_option(nullptr, option, &bytes), variable);
    OPENSSL_free(der);
}

int encodeCertificate(const char* path, unsigned char** der)
{
    std::FILE* const file = std::fopen(path, "r");
    X509* const certificate = file != nullptr ? PEM_read_X509(file, nullptr, nullptr, nullptr) : nullptr;
    const int size = certificate != nullptr ? i2d_X509(certificate, der) : -1;
    X509_free(certificate);
    if (file != nullptr)
        std::fclose(file);
    return size;
}

int encodeKey(const char* path, unsigned char** der)
{
    std::FILE* const file = std::fopen(path, "r");
    EVP_PKEY* const key = file != nullptr ? PEM_read_PrivateKey(file, nullptr, nullptr, nullptr) : nullptr;
    const int size = key != nullptr ? i2d_PrivateKey(key, der) : -1;
    EVP_PKEY_free(key);
    if (file != nullptr)
        std::fclose(file);
    return size;
}

void connectRaw(const Attempt& attempt)
{
    const int requirement = attempt.isStrict ? LDAP_OPT_X_TLS_DEMAND : LDAP_OPT_X_TLS_NEVER;
    check(ldap_set_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &requirement), "REQUIRE_CERT");
    LDAP* ld = nullptr;
    check(ldap_initialize(&ld, attempt.url.c_str()), "ldap_initialize");
    const std::unique_ptr<LDAP, int (*)(LDAP*)> handle(ld, &ldap_destroy);
    const int version = LDAP_VERSION3;
    check(ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version), "PROTOCOL_VERSION");
    if (attempt.connection == "StartTLS")
        check(ldap_start_tls_s(ld, nullptr, nullptr), "ldap_start_tls_s");
    berval noPassword{0, nullptr};
    check(ldap_sasl_bind_s(ld, "", LDAP_SASL_SIMPLE, &noPassword, nullptr, nullptr, nullptr), "bind");
}

void connectSession(const Attempt& attempt)
{
    tavo::ldap::Session session(tavo::utils::Url(QString::fromStdString(attempt.url)),
        attempt.connection == "StartTLS", !attempt.isStrict);
    session.bind(QString(), QString());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 5)
        return 2;
    const Attempt attempt{argv[2], std::string(argv[3]) == "strict", argv[4]};
    // libldap writes to connections that the server has closed.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        setGlobally(LDAP_OPT_X_TLS_CACERT, "TAVO_CACERT", encodeCertificate);
        setGlobally(LDAP_OPT_X_TLS_CERT, "TAVO_CERT", encodeCertificate);
        setGlobally(LDAP_OPT_X_TLS_KEY, "TAVO_KEY", encodeKey);
    } catch (const std::exception& error) {
        std::puts(error.what());
        return 3;
    }
    try {
        if (std::string(argv[1]) == "raw")
            connectRaw(attempt);
        else
            connectSession(attempt);
        std::puts("accepted");
    } catch (const std::exception& error) {
        std::printf("refused: %s\n", error.what());
    }
    return 0;
}
