#include "ldap/private/client_library.h"

#include <ldap.h>

namespace tavo::ldap {

Mutex& initMutex()
{
    // Never destroyed: a handler may open a session while the process exits.
    static Mutex& mutex = *new Mutex(Mutex::RecursionMode::recursive);
    return mutex;
}

void setUpGlobalOptions()
{
    // Not at library load: a program may set the environment before its first use of the library.
    [[maybe_unused]] static const bool once = [] {
        const MutexLocker lock(initMutex());
        int level = 0;
        return ldap_get_option(nullptr, LDAP_OPT_DEBUG_LEVEL, &level) == LDAP_OPT_SUCCESS;
    }();
}

} // namespace tavo::ldap
