#pragma once

#include "options.h"
#include <ldap/session.h>
#include <ldap/utils.h>

#include <stdexcept>
#include <string>

namespace tavo::tool {

/// Carries out the command; data go to standard output, everything else to standard error.
/// \return the exit code: 0 for success, 1 for failure
int run(const Options& options);

/// A step that failed, with the reason.
class CommandError : public std::runtime_error
{
public:
    CommandError(const std::string& step, const std::string& reason)
        : std::runtime_error("can't " + step + ": " + reason)
    {}
};

/// Makes one step and names it in the error when it fails.
/// \throws CommandError
template <class Step>
auto attempt(const std::string& step, Step&& call)
{
    try {
        return call();
    } catch (const ldap::BaseError& error) {
        throw CommandError(step, error.message().toStdString());
    }
}

std::string quoted(const QString& text);

/// A session with the server, not bound.
/// \throws CommandError
std::unique_ptr<ldap::Session> connect(const ldap::Settings& settings);

/// \throws CommandError
std::vector<ldap::SearchEntry> readRootDse(
    const ldap::Session& session, const ldap::Settings& settings, std::vector<QByteArray> attributes);

} // namespace tavo::tool
