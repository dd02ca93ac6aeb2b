#pragma once

#include <tavo_kit/ini_config.h>

namespace tavo::ldap {

/// The debugging switches that an administrator can set in `tavo_ldap.ini`.
struct Ini : public kit::IniConfig
{
    /// Registers the switches and reads the file once.
    Ini();

    bool logResponseReferences = false;
    int openldapDebugLevel = 0;
};

/// The process's only instance, read from the file on first use; lives until the process's very end.
/// Thread-safe.
Ini& ini();

} // namespace tavo::ldap
