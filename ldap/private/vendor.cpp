#include "ldap/private/vendor.h"

#include <algorithm>

namespace tavo::ldap {

namespace {

VendorDefaults activeDirectoryDefaults()
{
    return {QStringLiteral("sAMAccountName"), QStringLiteral("group"), QByteArrayLiteral("member"),
        // Accounts whose bit 2, "disabled", is not set.
        QStringLiteral("(&(objectCategory=User)(!(userAccountControl:1.2.840.113556.1.4.803:=2)))"),
        Vendor::activeDirectory, QString()};
}

VendorDefaults openLdapDefaults()
{
    return {QStringLiteral("uid"), QStringLiteral("groupOfNames"), QByteArrayLiteral("member"), QString(),
        Vendor::openLdap, QString()};
}

} // namespace

Vendor recognizeVendor(const std::vector<SearchEntry>& rootDse)
{
    const bool hasForest = std::any_of(rootDse.begin(), rootDse.end(), [](const SearchEntry& entry) {
        return !entry.getAttributeFirstValue(QStringLiteral("forestFunctionality")).isEmpty();
    });
    return hasForest ? Vendor::activeDirectory : Vendor::openLdap;
}

VendorDefaults defaultsFor(Vendor vendor)
{
    return vendor == Vendor::activeDirectory ? activeDirectoryDefaults() : openLdapDefaults();
}

bool servesConcurrentPagedSearches(Vendor vendor) { return vendor == Vendor::activeDirectory; }

} // namespace tavo::ldap
