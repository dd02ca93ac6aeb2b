#pragma once

#include <ldap/utils.h>
#include <tavo_utils/mutex.h>

namespace tavo::ldap {

/// Serialises ldap_initialize in the whole process, and whatever else sets up the client library's global
/// state on first use, which it doesn't do safely from several threads.
Mutex& initMutex();

/// Makes the client library read its configuration (ldap.conf, environment), if it hasn't yet.
void setUpGlobalOptions();

/// Lets the client library take no further message from the handle's connection, whose server can't be
/// understood.
///
/// It forgets to let go of a request whose answer it can't decode. A second such answer to it, which it would
/// look at during any later operation, and it aborts the process when the handle is destroyed.
void stopReading(LDAP* ld);

} // namespace tavo::ldap
