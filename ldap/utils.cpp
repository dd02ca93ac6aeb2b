#include "ldap/utils.h"

#include <ldap/private/client_call.h>
#include <ldap/private/client_library.h>

#include <ldap.h>

namespace tavo::ldap {

bool isLdapsUrl(const utils::Url& url) { return ldap_is_ldaps_url(url.toStdString().c_str()) != 0; }

void enableOpenldapDebugOutput(int level)
{
    setUpGlobalOptions();
    const auto [rc, systemError] =
        callClient([&] { return ldap_set_option(nullptr, LDAP_OPT_DEBUG_LEVEL, &level); });
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QStringLiteral("enable LDAP debug output"), systemError);
    }
}

} // namespace tavo::ldap
