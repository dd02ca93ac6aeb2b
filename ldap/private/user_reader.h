#pragma once

#include <ldap/entry.h>
#include <ldap/result.h>
#include <ldap/user.h>
#include <tavo_utils/log.h>

#include <QString>

#include <cstddef>
#include <vector>

namespace tavo::ldap {

/// Turns the entries of a fetch into users and logs the outcome. `User::fromSearchEntry` has the mapping.
struct UserReader
{
    using Record = User;

    static void warnOfFailure(const log::Tag& tag, Result result);
    static void logCount(const log::Tag& tag, std::size_t count);

    /// Appends the entry's user, unless it has no login.
    /// \throws BaseError when the entry's DN is needed and can't be parsed
    void read(const log::Tag& tag, SearchEntry entry, std::vector<User>& users) const;

    QString loginAttribute;
};

} // namespace tavo::ldap
