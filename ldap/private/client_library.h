#pragma once

#include <tavo_utils/mutex.h>

namespace tavo::ldap {

/// Serialises ldap_initialize in the whole process, and whatever else sets up the client library's global
/// state on first use, which it doesn't do safely from several threads.
Mutex& initMutex();

/// Makes the client library read its configuration (ldap.conf, environment), if it hasn't yet.
void setUpGlobalOptions();

} // namespace tavo::ldap
