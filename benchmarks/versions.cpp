// Prints what the figures depend on besides this tree's own code, as one line of JSON.
#include <ldap.h>

#include <QtGlobal>

#include <gnu/libc-version.h>

#include <cstdio>

int main()
{
    LDAPAPIInfo info = {};
    info.ldapai_info_version = LDAP_API_INFO_VERSION;
    char* tls = nullptr;
    if (ldap_get_option(nullptr, LDAP_OPT_API_INFO, &info) != LDAP_OPT_SUCCESS ||
        ldap_get_option(nullptr, LDAP_OPT_X_TLS_PACKAGE, &tls) != LDAP_OPT_SUCCESS) {
        return 1;
    }
    std::printf("{\"compiler\": \"" COMPILER
                "\", \"Qt\": \"%s\", \"libldap\": \"%d.%d.%d, %s\", \"libc\": \"%s\"}\n",
        qVersion(), info.ldapai_vendor_version / 10000, info.ldapai_vendor_version / 100 % 100,
        info.ldapai_vendor_version % 100, tls, gnu_get_libc_version());
    return 0;
}
