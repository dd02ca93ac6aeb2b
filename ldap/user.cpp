#include "ldap/user.h"

#include <tavo_reflect/json.h>

#include <array>
#include <utility>

namespace tavo::ldap {

namespace {

// Literals: entries may still be read while the process exits and has destroyed what owns memory.
const QString kMailAttribute = QStringLiteral("mail");

/// In the order of preference.
const std::array<QString, 2> kFullNameAttributes{QStringLiteral("displayName"), QStringLiteral("gecos")};

QString displayName(const SearchEntry& entry)
{
    for (const QString& attribute : kFullNameAttributes) {
        QString name = entry.getAttributeFirstValue(attribute).trimmed();
        if (!name.isEmpty()) {
            return name;
        }
    }
    return {};
}

} // namespace

User User::fromSearchEntry(SearchEntry entry, const QByteArray& loginAttribute)
{
    User user;
    user.dn = std::move(entry.dn);
    user.email = entry.getAttributeFirstValue(kMailAttribute).trimmed().toLower();
    user.fullName = displayName(entry);
    if (user.fullName.isEmpty()) {
        user.fullName = dnFirstItem(user.dn).trimmed();
    }
    if (!loginAttribute.isEmpty()) {
        // By design: as the server sent it, unlike the address; the library never compares logins.
        user.login = entry.getAttributeFirstValue(QString::fromUtf8(loginAttribute));
    }
    return user;
}

const std::vector<QByteArray>& User::attributes()
{
    static const std::vector<QByteArray> attributes = [] {
        std::vector<QByteArray> names;
        names.reserve(kFullNameAttributes.size() + 1);
        for (const QString& attribute : kFullNameAttributes) {
            names.push_back(attribute.toUtf8());
        }
        names.push_back(kMailAttribute.toUtf8());
        return names;
    }();
    return attributes;
}

std::string User::toString() const { return reflect::json::serialize(*this); }

std::string Group::toString() const { return reflect::json::serialize(*this); }

} // namespace tavo::ldap
