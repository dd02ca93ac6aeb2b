#pragma once

#include <ldap/session.h>
#include <ldap/settings.h>

#include <memory>

namespace tavo::ldap {

/// A session as the settings describe it, with their time limit for searches. Not bound; connected already
/// when the settings ask for StartTLS.
/// \throws BaseError, TlsError
inline std::unique_ptr<Session> openSession(const Settings& settings)
{
    auto session =
        std::make_unique<Session>(settings.uri, settings.startTls, settings.ignoreCertificateErrors);
    session->setResponseTimeout(settings.responseTimeout);
    return session;
}

} // namespace tavo::ldap
