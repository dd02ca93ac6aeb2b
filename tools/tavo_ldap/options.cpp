#include "options.h"

#include <tavo_utils/log.h>

#include <CLI/CLI.hpp>

#include <QByteArray>
#include <QFile>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

namespace tavo::tool {

namespace {

/// The command line as it was typed.
struct Arguments
{
    std::string url;
    std::string adminDn;
    std::string passwordFile;
    std::string passwordVariable;
    std::string base;
    std::string filter;
    std::optional<std::string> loginAttribute;
    std::optional<std::string> groupObjectClass;
    std::optional<std::string> memberAttribute;
    bool startTls = false;
    bool ignoreCertificateErrors = false;
    int responseTimeout = 30;
    int pageSize = 500;
    Format format = Format::table;
    int verbosity = 0;
};

QString text(const std::string& utf8) { return QString::fromStdString(utf8); }

std::optional<QString> text(const std::optional<std::string>& utf8)
{
    return utf8 ? std::make_optional(text(*utf8)) : std::nullopt;
}

void addConnectionOptions(CLI::App& app, Arguments& arguments)
{
    app.add_option("--url", arguments.url, "The server: ldap://HOST[:PORT] or ldaps://HOST[:PORT]")
        ->required();
    app.add_option("--admin-dn", arguments.adminDn, "DN to bind with; without it the bind is anonymous");
    auto* file =
        app.add_option("--password-file", arguments.passwordFile, "File whose first line is the password");
    app.add_option("--password-env", arguments.passwordVariable, "Environment variable with the password")
        ->excludes(file);
    app.add_flag("--start-tls", arguments.startTls, "Upgrade the connection with StartTLS");
    app.add_flag("--ignore-certificate-errors", arguments.ignoreCertificateErrors,
        "Accept a certificate that can't be verified; anybody on the way can then read the password");
    app.add_option(
           "--response-timeout", arguments.responseTimeout, "Seconds the server may take for a search")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    // Not bound to the number itself: some versions of the parser would reset it for each command not given.
    app.add_flag_function(
        "-v,--verbose", [&arguments](std::int64_t count) { arguments.verbosity = static_cast<int>(count); },
        "Log to standard error; -vv logs everything");
}

void addFetchOptions(CLI::App& app, Arguments& arguments)
{
    app.add_option("--base", arguments.base, "DN to search below; without it the server is asked");
    app.add_option("--filter", arguments.filter, "Additional filter, such as (department=IT)");
    app.add_option("--page-size", arguments.pageSize, "Entries per page")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--login-attribute", arguments.loginAttribute, "User attribute with the login [vendor's]");
    app.add_option("--group-object-class", arguments.groupObjectClass, "Object class of groups [vendor's]");
    app.add_option(
        "--member-attribute", arguments.memberAttribute, "Group attribute with members [vendor's]");
}

void addFormatOption(CLI::App& app, Arguments& arguments)
{
    const std::map<std::string, Format> formats{{"table", Format::table}, {"ndjson", Format::ndjson}};
    app.add_option("--format", arguments.format, "table, or ndjson for one JSON object a line")
        ->transform(CLI::CheckedTransformer(formats))
        ->option_text("table|ndjson");
}

QString readPasswordFile(const std::string& path)
{
    QFile file(text(path));
    if (!file.open(QIODevice::ReadOnly)) {
        throw UsageError("can't read the password file " + path + ": " + file.errorString().toStdString());
    }
    QByteArray line = file.readLine();
    while (line.endsWith('\n') || line.endsWith('\r')) {
        line.chop(1);
    }
    return QString::fromUtf8(line);
}

QString readPassword(const Arguments& arguments)
{
    if (!arguments.passwordFile.empty()) {
        return readPasswordFile(arguments.passwordFile);
    }
    if (arguments.passwordVariable.empty()) {
        return {};
    }
    const char* value = std::getenv(arguments.passwordVariable.c_str());
    if (value == nullptr) {
        throw UsageError("the environment variable " + arguments.passwordVariable + " is not set");
    }
    return QString::fromUtf8(value);
}

/// The length of what may be a name and password; 0 when there is no "@".
std::size_t endOfUserInfo(const std::string& text)
{
    std::size_t end = 0;
    for (const std::string_view at : {"@", "%40"}) {
        if (const auto found = text.rfind(at); found != std::string::npos) {
            end = std::max(end, found + at.size());
        }
    }
    return end;
}

utils::Url readUrl(const std::string& given)
{
    utils::Url url(text(given));
    const QString scheme = url.scheme().toLower();
    const bool known = scheme == QLatin1String("ldap") || scheme == QLatin1String("ldaps");
    if (endOfUserInfo(given) != 0) {
        throw UsageError("--url holds a name or password: give them by --admin-dn and by --password-file or "
                         "--password-env");
    }
    if (!url.isValid() || url.host().isEmpty() || !known) {
        throw UsageError("--url " + url.withoutUserInfo().toStdString() +
                         " is not of the form ldap://HOST[:PORT] or ldaps://HOST[:PORT]");
    }
    return url;
}

void checkCredentials(const ldap::Settings& settings)
{
    if (settings.adminDn.isEmpty() && !settings.adminPassword.isEmpty()) {
        throw UsageError("a password without --admin-dn");
    }
    if (!settings.adminDn.isEmpty() && settings.adminPassword.isEmpty()) {
        throw UsageError("--admin-dn needs a password that is not empty: --password-file or --password-env");
    }
}

Options checked(const Arguments& arguments, Command command)
{
    Options options;
    options.command = command;
    options.base = text(arguments.base);
    options.filter = text(arguments.filter);
    options.format = arguments.format;
    options.settings.uri = readUrl(arguments.url);
    options.settings.adminDn = text(arguments.adminDn);
    options.settings.adminPassword = readPassword(arguments);
    options.settings.loginAttribute = text(arguments.loginAttribute);
    options.settings.groupObjectClass = text(arguments.groupObjectClass);
    options.settings.memberAttribute = text(arguments.memberAttribute);
    options.settings.responseTimeout = std::chrono::seconds(arguments.responseTimeout);
    options.settings.startTls = arguments.startTls;
    options.settings.ignoreCertificateErrors = arguments.ignoreCertificateErrors;
    options.settings.searchPageSize = arguments.pageSize;
    checkCredentials(options.settings);
    return options;
}

/// The complaint about arguments may repeat them, a URL with a password included. Nothing is left of a line
/// before its last "@", escaped or not.
std::string withoutUserInfo(const std::string& complaint)
{
    std::istringstream lines(complaint);
    std::string shown;
    for (std::string line; std::getline(lines, line);) {
        const auto end = endOfUserInfo(line);
        shown += (end == 0 ? line : "(withheld: it may be a password)" + line.substr(end)) + '\n';
    }
    return shown;
}

void setLogLevel(int verbosity)
{
    constexpr log::Level levels[] = {log::Level::warning, log::Level::debug, log::Level::verbose};
    log::setMaxLevel(levels[std::min(verbosity, 2)]);
}

} // namespace

Options parseOptions(int argc, char** argv)
{
    CLI::App app("Tests the connection to an LDAP directory and lists its users and groups.", "tavo-ldap");
    app.require_subcommand(1);
    app.set_version_flag("--version", TAVO_LDAP_VERSION);

    Arguments arguments;
    Command command = Command::test;
    const auto addCommand = [&](const char* name, const char* description, Command which) {
        CLI::App* subcommand = app.add_subcommand(name, description);
        subcommand->callback([&command, which] { command = which; });
        addConnectionOptions(*subcommand, arguments);
        return subcommand;
    };
    addCommand("test", "Connect, bind, and say who the server takes us for", Command::test);
    addFormatOption(
        *addCommand("vendor", "Say which kind of directory this is, and its defaults", Command::vendor),
        arguments);
    for (CLI::App* fetch : {addCommand("users", "List the users", Command::users),
             addCommand("groups", "List the groups and their members", Command::groups)}) {
        addFetchOptions(*fetch, arguments);
        addFormatOption(*fetch, arguments);
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help and version arrive as "errors" with code 0.
        std::ostringstream complaint;
        const int code = app.exit(error, std::cout, complaint);
        std::cerr << withoutUserInfo(complaint.str());
        throw NothingToDo{code == 0 ? 0 : 2};
    }
    setLogLevel(arguments.verbosity);
    return checked(arguments, command);
}

} // namespace tavo::tool
