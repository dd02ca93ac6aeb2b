#pragma once

#include <ldap/settings.h>

#include <QString>

#include <stdexcept>

namespace tavo::tool {

enum class Command
{
    test,
    vendor,
    users,
    groups,
};

/// How records are written to standard output.
enum class Format
{
    table,
    ndjson,
};

/// The command line, checked, and with the password read.
struct Options
{
    Command command = Command::test;
    ldap::Settings settings;

    /// Empty: the server is asked for its naming context.
    QString base;

    QString filter;
    Format format = Format::table;
};

/// The command line is invalid; the text says why.
class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// Thrown when nothing is left to do: help was requested, or a usage error has been reported.
struct NothingToDo
{
    int exitCode;
};

/// Reads the command line.
/// \throws NothingToDo, UsageError
Options parseOptions(int argc, char** argv);

} // namespace tavo::tool
