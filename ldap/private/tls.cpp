#include "ldap/private/tls.h"

#include <ldap/error.h>
#include <tavo_utils/scope_guard.h>

#include <openssl/err.h>

#include <unistd.h>

#include <cerrno>

namespace tavo::ldap {

namespace {

void createTlsContext(LDAP* ld)
{
    const int clientSide = 0;
    const int rc = ldap_set_option(ld, LDAP_OPT_X_TLS_NEWCTX, &clientSide);
    const int systemError = errno;
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QStringLiteral("set LDAP_OPT_X_TLS_NEWCTX"), systemError);
    }
}

/// Gives the handle the authorities that the host's OpenLDAP configuration trusts (TLS_CACERT,
/// TLS_CACERTDIR), for its next TLS context.
/// \return whether there are any
///
/// By design: the client library hands them to its default context alone; a context of one's own would
/// trust nobody (GnuTLS) or OpenSSL's default store. A configured path that doesn't exist is skipped, because
/// Debian's configuration names a file that a minimal installation lacks. One that exists and can't be read
/// makes the context fail, rather than let another authority decide.
bool trustHostsAuthorities(LDAP* ld)
{
    bool found = false;
    for (const int option : {LDAP_OPT_X_TLS_CACERTFILE, LDAP_OPT_X_TLS_CACERTDIR}) {
        char* path = nullptr;
        ldap_get_option(nullptr, option, &path);
        const utils::ScopeGuard freePath([&] { ldap_memfree(path); });
        if (path != nullptr && (access(path, F_OK) == 0 || errno != ENOENT)) {
            found |= ldap_set_option(ld, option, path) == LDAP_OPT_SUCCESS;
        }
    }
    return found;
}

bool verifiesCertificates(LDAP* ld)
{
    int requirement = LDAP_OPT_X_TLS_NEVER;
    ldap_get_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &requirement);
    return requirement != LDAP_OPT_X_TLS_NEVER;
}

} // namespace

void setUpTls(LDAP* ld, bool isSecure, bool ignoreCertificateErrors)
{
    const int requireCertificate = ignoreCertificateErrors ? LDAP_OPT_X_TLS_NEVER : LDAP_OPT_X_TLS_HARD;
    const int rc = ldap_set_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &requireCertificate);
    const int systemError = errno;
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QStringLiteral("set LDAP_OPT_X_TLS_REQUIRE_CERT"), systemError);
    }
    if (isSecure && !ignoreCertificateErrors) {
        trustHostsAuthorities(ld);
    }
    // The requirement takes effect only in a TLS context that is made after it.
    createTlsContext(ld);
}

void prepareStartTls(LDAP* ld)
{
    if (verifiesCertificates(ld) && trustHostsAuthorities(ld)) {
        createTlsContext(ld);
    }
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
