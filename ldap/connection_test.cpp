#include "ldap/connection_test.h"

#include <ldap/error.h>
#include <ldap/open_session.h>
#include <ldap/private/wipe.h>
#include <tavo_utils/scope_guard.h>

#include <utility>

namespace tavo::ldap {

bool testLdapConnection(const Settings& settings)
{
    return testLdapConnection(settings, ConnectionOptions());
}

bool testLdapConnection(const Settings& settings, const ConnectionOptions& options)
{
    try {
        const auto session = openSession(settings, options);
        session->bind(settings.adminDn, settings.adminPassword);
        return true;
    } catch (const BaseError&) {
        return false;
    }
}

std::future<void> testLdapConnectionAsync(const Settings& settings, utils::MoveOnlyFunc<void()> onFailure)
{
    return testLdapConnectionAsync(settings, ConnectionOptions(), std::move(onFailure));
}

std::future<void> testLdapConnectionAsync(
    const Settings& settings, const ConnectionOptions& options, utils::MoveOnlyFunc<void()> onFailure)
{
    auto task = [settings = Settings(settings), options, onFailure = std::move(onFailure)]() mutable {
        // Moved out of the task, which lives as long as the future: password and handler shall not.
        Settings tested = std::move(settings);
        const utils::ScopeGuard wipePassword([&] { wipe(tested.adminPassword); });
        utils::MoveOnlyFunc<void()> handler = std::move(onFailure);
        if (!testLdapConnection(tested, options)) {
            handler();
        }
    };
    return std::async(std::launch::async, std::move(task));
}

} // namespace tavo::ldap
