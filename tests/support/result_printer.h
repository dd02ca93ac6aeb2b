#pragma once

#include <ldap/result.h>

#include <ostream>

/// How GoogleTest shows a result.
namespace tavo::ldap {
inline void PrintTo(Result result, std::ostream* out) { *out << toString(result); }
} // namespace tavo::ldap
