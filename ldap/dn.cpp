#include "ldap/dn.h"

#include <ldap/error.h>
#include <tavo_utils/scope_guard.h>

#include <ldap.h>

#include <cerrno>

namespace tavo::ldap {

QString dnFirstItem(const QString& dn)
{
    const QByteArray text = dn.toUtf8();
    LDAPDN parsed = nullptr;
    const int parseCode = ldap_str2dn(text.constData(), &parsed, LDAP_DN_FORMAT_LDAPV3);
    const int parseSystemError = errno;
    const utils::ScopeGuard freeParsed([&] { ldap_dnfree(parsed); });
    // By design: the pointer is tested and not the code, so an empty DN, which parses to nothing without an
    // error, throws with code 0.
    if (parsed == nullptr) {
        throw BaseError(parseCode, QStringLiteral("ldap_str2dn()"), parseSystemError);
    }

    char* rendered = nullptr;
    const int renderCode = ldap_rdn2str(parsed[0], &rendered, LDAP_DN_FORMAT_UFN);
    const int renderSystemError = errno;
    const utils::ScopeGuard freeRendered([&] { ldap_memfree(rendered); });
    if (renderCode != LDAP_SUCCESS) {
        throw BaseError(renderCode, QStringLiteral("ldap_rdn2str()"), renderSystemError);
    }
    return QString::fromUtf8(rendered);
}

} // namespace tavo::ldap
