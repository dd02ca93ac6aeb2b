// A program of somebody else's: it compiles, links and runs against every part of the library.
#include <ldap/manager.h>
#include <ldap/session.h>
#include <ldap/utils.h>

#include <iostream>

using namespace tavo::ldap;

int main()
{
    Settings settings;
    settings.uri = tavo::utils::Url(QStringLiteral("ldap://127.0.0.1:1"));
    std::cout << settings.toString() << '\n'
              << dnFirstItem(QStringLiteral("cn=Ann Lee,dc=test")).toStdString() << '\n';
    try {
        createManagerOrThrow(settings);
    } catch (const BaseError& error) {
        // Nothing listens there; that the error arrives as what it is takes the library's exported type
        // information.
        std::cout << error.what() << '\n';
        return 0;
    }
    return 1;
}
