#pragma once

#include <QByteArray>
#include <QString>

namespace tavo::ldap {

/// The kinds of directory that the library tells apart.
enum class Vendor
{
    /// OpenLDAP, and every server that isn't known to be something else.
    openLdap,

    /// Microsoft Active Directory, and Samba's domain controller.
    activeDirectory,
};

/// The attribute names and the user filter that suit one kind of directory. A plain value type.
struct VendorDefaults
{
    /// The attribute that holds a user's login.
    QString loginAttribute;

    /// The object class of groups.
    QString groupObjectClass;

    /// The attribute that lists a group's members.
    QByteArray memberAttribute;

    /// The filter that selects users; empty: none is implied.
    QString userFilter;

    /// The kind of directory that these defaults suit.
    Vendor vendor = Vendor::openLdap;

    /// Why the server could not be asked, as `BaseError::message()` has it; empty when it answered.
    QString failure;
};

} // namespace tavo::ldap
