#include "ldap/error.h"

#include <tavo_utils/formatter.h>
#include <tavo_utils/log.h>
#include <tavo_utils/system_error.h>

#include <ldap.h>
#include <openssl/err.h>

#include <utility>

namespace tavo::ldap {

BaseError::BaseError(int ldapCode_, QString context_, int systemError_)
    : ldapCode(ldapCode_)
    , context(std::move(context_))
    , systemError(systemError_)
{
    // Qualified: a derived class's message isn't in force while its base is being made.
    TAVO_LOG_DEBUG(log::tag(*this), u"%1", BaseError::message());
}

QString BaseError::ldapErrorString(int ldapCode) { return QString::fromUtf8(ldap_err2string(ldapCode)); }

QString BaseError::message() const
{
    QString text;
    if (!context.isEmpty()) {
        text += context + QLatin1String(": ");
    }
    text += ldapErrorString(ldapCode);
    if (systemError != 0) {
        text += utils::format(u" (%1)", utils::SystemError::toString(systemError));
    }
    return text;
}

InvalidCredentialsError::InvalidCredentialsError(QString user_)
    : BaseError(LDAP_INVALID_CREDENTIALS, QString(), 0)
    , user(std::move(user_))
{}

QString InvalidCredentialsError::message() const
{
    return utils::format(u"Invalid credentials for user %1", user);
}

TlsError::TlsError(unsigned long sslError_, int ldapCode_, int systemError_)
    : BaseError(ldapCode_, QStringLiteral("TLS error with session"), systemError_)
    , sslError(sslError_)
{
    // The text is in OpenSSL's own static buffer, so it is used at once.
    const char* text = ERR_error_string(sslError, nullptr);
    TAVO_LOG_DEBUG(log::tag(*this), u"LDAP TLS/SSL error: %1", text);
}

} // namespace tavo::ldap
