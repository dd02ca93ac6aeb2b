#include "steps.h"

#include <ldap/open_session.h>
#include <tavo_utils/formatter.h>

#include <utility>

namespace tavo::tool {

std::string quoted(const QString& text) { return utils::format(u"'%1'", text).toStdString(); }

std::unique_ptr<ldap::Session> connect(const ldap::Settings& settings)
{
    return attempt("connect to " + settings.uri.toStdString(), [&] { return ldap::openSession(settings); });
}

std::vector<ldap::SearchEntry> readRootDse(
    const ldap::Session& session, const ldap::Settings& settings, std::vector<QByteArray> attributes)
{
    return attempt("read the root DSE of " + settings.uri.toStdString(), [&] {
        return session.simpleSearch({QString(), QString(), std::move(attributes), ldap::SearchScope::base});
    });
}

} // namespace tavo::tool
