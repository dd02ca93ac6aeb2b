#include "ldap/tavo_ldap_ini.h"

namespace tavo::ldap {

Ini::Ini()
    : kit::IniConfig(QStringLiteral("tavo_ldap.ini"))
{
    logResponseReferences =
        regBoolParam(&logResponseReferences, logResponseReferences, QStringLiteral("logResponseReferences"),
            QStringLiteral("Enables debug output of LDAP references in search."));
    openldapDebugLevel =
        regIntParam(&openldapDebugLevel, openldapDebugLevel, QStringLiteral("openldapDebugLevel"),
            QStringLiteral("Enables debug output to stdout of openldap library"));
    reload();
}

Ini& ini()
{
    // Never destroyed: a detached search may read it while the process exits.
    static Ini& instance = *new Ini;
    return instance;
}

} // namespace tavo::ldap
