#pragma once

#include <tavo_utils/mutex.h>

namespace tavo::ldap {

/// Serialises ldap_initialize in the whole process, and whatever else sets up the client library's global
/// state on first use, which isn't thread-safe there.
Mutex& initMutex();

/// Makes the client library read its configuration (ldap.conf, environment), if it hasn't yet.
void setUpGlobalOptions();

} // namespace tavo::ldap
