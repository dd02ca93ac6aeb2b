#include "commands.h"

#include "listing.h"
#include "output.h"
#include "steps.h"
#include <tavo_reflect/json.h>

#include <exception>
#include <string>
#include <tuple>

namespace tavo::tool {

/// The output of the vendor command.
struct VendorReport
{
    QString vendor;
    QString loginAttribute;
    QString groupObjectClass;
    QString memberAttribute;
    QString userFilter;
};

} // namespace tavo::tool

template <>
struct tavo::reflect::Fields<tavo::tool::VendorReport>
{
    using Report = tavo::tool::VendorReport;
    static constexpr auto value =
        std::make_tuple(field("vendor", &Report::vendor), field("loginAttribute", &Report::loginAttribute),
            field("groupObjectClass", &Report::groupObjectClass),
            field("memberAttribute", &Report::memberAttribute), field("userFilter", &Report::userFilter));
};

namespace tavo::tool {

namespace {

int testConnection(const Options& options)
{
    const ldap::Settings& settings = options.settings;
    const auto session = connect(settings);
    const std::string who = settings.adminDn.isEmpty() ? "anonymously" : "as " + quoted(settings.adminDn);
    attempt("bind to " + settings.uri.toStdString() + " " + who,
        [&] { session->bind(settings.adminDn, settings.adminPassword); });
    printLine("OK");
    try {
        note("The server takes us for " + quoted(session->whoAmI()) + ".");
    } catch (const ldap::BaseError& error) {
        note("The server doesn't say whom it takes us for (" + error.message().toStdString() + ").");
    }
    return 0;
}

int showVendor(const Options& options)
{
    const auto session = connect(options.settings);
    // Detection counts a server that can't be asked as OpenLDAP; an administrator wants to see the error.
    readRootDse(*session, options.settings, {});
    const ldap::VendorDefaults defaults = session->detectLdapVendor();
    const bool isActiveDirectory = defaults.vendor == ldap::Vendor::activeDirectory;
    const VendorReport report{
        isActiveDirectory ? QStringLiteral("Active Directory") : QStringLiteral("OpenLDAP or compatible"),
        defaults.loginAttribute, defaults.groupObjectClass, QString::fromUtf8(defaults.memberAttribute),
        defaults.userFilter};
    if (options.format == Format::ndjson) {
        printLine(reflect::json::serialize(report));
        return 0;
    }
    Table table({QStringLiteral("Vendor"), report.vendor});
    table.add({QStringLiteral("Login attribute"), report.loginAttribute});
    table.add({QStringLiteral("Group object class"), report.groupObjectClass});
    table.add({QStringLiteral("Member attribute"), report.memberAttribute});
    table.add({QStringLiteral("User filter"),
        report.userFilter.isEmpty() ? QStringLiteral("(none)") : report.userFilter});
    table.print();
    return 0;
}

int dispatch(const Options& options)
{
    switch (options.command) {
    case Command::test:
        return testConnection(options);
    case Command::vendor:
        return showVendor(options);
    case Command::users:
        return listUsers(options);
    case Command::groups:
        return listGroups(options);
    }
    return 1;
}

} // namespace

int run(const Options& options)
{
    try {
        const int exitCode = dispatch(options);
        flushOutput();
        return exitCode;
    } catch (const std::exception& error) {
        note(std::string("tavo-ldap: ") + error.what());
        return 1;
    }
}

} // namespace tavo::tool
