#pragma once

#include <ldap/entry.h>
#include <ldap/result.h>
#include <ldap/user.h>
#include <tavo_utils/log.h>

#include <QString>

#include <cstddef>
#include <vector>

namespace tavo::ldap {

/// Turns the entries of a fetch into groups and logs the outcome.
struct GroupReader
{
    using Record = Group;

    static void warnOfFailure(const log::Tag& tag, Result result);
    static void logCount(const log::Tag& tag, std::size_t count);

    /// Appends the entry's group.
    /// \throws BaseError when the entry's DN can't be parsed
    void read(const log::Tag& tag, SearchEntry entry, std::vector<Group>& groups) const;

    QString memberAttribute;
};

} // namespace tavo::ldap
