// The part of that program that fetches. To it `ldap` must mean the library's namespace and nothing else: a
// global `struct ldap` in one of these headers would make the name ambiguous.
#include <ldap/manager.h>

using namespace tavo;

std::unique_ptr<ldap::Manager> connectToDirectory()
{
    const ldap::Settings settings;
    return ldap::createManagerOrThrow(settings);
}
