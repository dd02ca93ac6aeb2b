#pragma once

#include <ldap/session.h>
#include <ldap/settings.h>

#include <memory>

namespace tavo::ldap {

/// A session as the settings describe it, with their time limit for searches. Not bound; connected already
/// when the settings ask for StartTLS, or when there are options.
/// \throws BaseError, TlsError
inline std::unique_ptr<Session> openSession(const Settings& settings, const ConnectionOptions& options = {})
{
    auto session =
        std::make_unique<Session>(settings.uri, settings.startTls, settings.ignoreCertificateErrors, options);
    session->setResponseTimeout(settings.responseTimeout);
    return session;
}

} // namespace tavo::ldap
