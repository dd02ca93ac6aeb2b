#include "ldap/private/user_reader.h"

#include <utility>

namespace tavo::ldap {

void UserReader::warnOfFailure(const log::Tag& tag, Result result)
{
    TAVO_LOG_WARNING(tag, u"Users fetching error: %1", toString(result));
}

void UserReader::logCount(const log::Tag& tag, std::size_t count)
{
    TAVO_LOG_VERBOSE(tag, u"Found %1 users", count);
}

void UserReader::read(const log::Tag& tag, SearchEntry entry, std::vector<User>& users) const
{
    // Here and not in `fromSearchEntry`, which would have to decode the name for each entry.
    QString login = loginAttribute.isEmpty() ? QString() : entry.getAttributeFirstValue(loginAttribute);
    User user = User::fromSearchEntry(std::move(entry), QByteArray());
    user.login = std::move(login);
    if (user.login.isEmpty()) {
        TAVO_LOG_DEBUG(tag, u"Ignoring entry with empty login: %1", user.dn);
        return;
    }
    users.push_back(std::move(user));
}

} // namespace tavo::ldap
