#pragma once

#include <ldap/session.h>
#include <ldap/settings.h>
#include <ldap/utils.h>

#include <QByteArray>
#include <QString>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavo::tool {

/// A step that failed, with the reason.
class CommandError : public std::runtime_error
{
public:
    CommandError(const std::string& step, const std::string& reason)
        : std::runtime_error("can't " + step + ": " + reason)
    {}
};

/// Performs one step and names it in the error when it fails.
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

/// The text in single quotes, for a note or an error.
std::string quoted(const QString& text);

/// A session with the server, not yet bound.
/// \throws CommandError
std::unique_ptr<ldap::Session> connect(const ldap::Settings& settings);

/// The root DSE with these attributes; empty when the server returns no entry.
/// \throws CommandError
std::vector<ldap::SearchEntry> readRootDse(
    const ldap::Session& session, const ldap::Settings& settings, std::vector<QByteArray> attributes);

} // namespace tavo::tool
