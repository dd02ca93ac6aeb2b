#include "ldap/user.h"

#include <ldap/private/attribute_names.h>
#include <tavo_reflect/json.h>

#include <array>
#include <utility>

namespace tavo::ldap {

namespace {

const AttributeName kMailAttribute(QByteArrayLiteral("mail"));

/// In the order of preference.
const std::array<AttributeName, 2> kFullNameAttributes{
    AttributeName(QByteArrayLiteral("displayName")), AttributeName(QByteArrayLiteral("gecos"))};

QString displayName(const SearchEntry& entry)
{
    for (const AttributeName& attribute : kFullNameAttributes) {
        QString name = entry.getAttributeFirstValue(attribute.text).trimmed();
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
    user.email = entry.getAttributeFirstValue(kMailAttribute.text).trimmed().toLower();
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
        for (const AttributeName& attribute : kFullNameAttributes) {
            names.push_back(attribute.key);
        }
        names.push_back(kMailAttribute.key);
        return names;
    }();
    return attributes;
}

std::string User::toString() const { return reflect::json::serialize(*this); }

std::string Group::toString() const { return reflect::json::serialize(*this); }

} // namespace tavo::ldap
