#pragma once

/// Marks what `libtavo_ldap.so` exports; everything else is hidden.
#define TAVO_LDAP_EXPORT __attribute__((visibility("default")))

/// Hides a member of an exported class that only the library itself uses.
#define TAVO_LDAP_NO_EXPORT __attribute__((visibility("hidden")))
