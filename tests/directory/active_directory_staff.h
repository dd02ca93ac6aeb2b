#pragma once

#include "directory_test.h"
#include "support/samba.h"

#include <string>
#include <vector>

namespace tavo::test {

inline constexpr int kEnabled = 23;
inline constexpr int kDisabled = 5;

inline std::string staffDn(const std::string& name) { return "CN=" + name + ",OU=Staff,DC=ad,DC=test"; }

/// `user00` and on; the disabled ones come after the enabled ones.
inline std::string loginOf(int number) { return (number < 10 ? "user0" : "user") + std::to_string(number); }

/// A password in the form in which Active Directory takes it: UTF-16 in quotes.
inline std::string passwordLine(const std::string& password)
{
    const QString quoted = qt("\"" + password + "\"");
    const QByteArray utf16(reinterpret_cast<const char*>(quoted.utf16()), quoted.size() * 2);
    return "unicodePwd:: " + utf16.toBase64().toStdString() + "\n";
}

inline std::string account(int number)
{
    const std::string login = loginOf(number);
    // The second one never has to change its password; the third has a name that isn't ASCII.
    const std::string control = number >= kEnabled ? "514" : number == 1 ? "66048" : "512";
    const std::string name = number == 2 ? "Zoë Müller" : "Person " + login;
    return "dn: " + staffDn(login) + "\nobjectClass: user\nsAMAccountName: " + login +
           "\nuserPrincipalName: " + login + "@ad.test\ndisplayName: " + name + "\nmail: " + login +
           "@AD.Test\nuserAccountControl: " + control + "\n" + passwordLine(Samba::password) + "\n";
}

inline std::string group(const std::string& name, const std::vector<std::string>& members)
{
    std::string ldif = "dn: " + staffDn(name) + "\nobjectClass: group\nsAMAccountName: " + name + "\n";
    for (const std::string& member : members) {
        ldif += "member: " + staffDn(member) + "\n";
    }
    return ldif + "\n";
}

inline std::string staff()
{
    std::string ldif = "dn: OU=Staff,DC=ad,DC=test\nobjectClass: organizationalUnit\n\n";
    std::vector<std::string> enabled;
    for (int number = 0; number < kEnabled + kDisabled; ++number) {
        ldif += account(number);
        if (number < kEnabled) {
            enabled.push_back(loginOf(number));
        }
    }
    ldif += "dn: " + staffDn("Supplier") + "\nobjectClass: contact\nmail: supplier@other.test\n\n";
    ldif += "dn: " + staffDn("PC1") +
            "\nobjectClass: computer\nsAMAccountName: PC1$\nuserAccountControl: 4096\n\n";
    ldif += group("Everybody", enabled);
    return ldif + group("Nested", {"Everybody", "user03"}) + group("Nobody", {});
}

} // namespace tavo::test
