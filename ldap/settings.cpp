#include "ldap/settings.h"

#include <tavo_reflect/json.h>

namespace tavo::ldap {

std::string Settings::toString() const { return reflect::json::serialize(*this); }

} // namespace tavo::ldap
