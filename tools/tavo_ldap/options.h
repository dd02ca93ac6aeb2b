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

/// The command line can't be carried out; the text says why.
class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// Thrown when there is nothing left to do: help was asked for, or the usage was wrong and that was said.
struct NothingToDo
{
    int exitCode;
};

/// Reads the command line.
/// \throws NothingToDo, UsageError
Options parseOptions(int argc, char** argv);

} // namespace tavo::tool
