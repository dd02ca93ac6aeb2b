#include <ldap/utils.h>

#include <ldap/private/client_library.h>
#include <ldap/private/positions.h>
#include <ldap/private/utils.h>
#include <tavo_utils/assert.h>
#include <tavo_utils/formatter.h>
#include <tavo_utils/log.h>
#include <tavo_utils/scope_guard.h>
#include <tavo_utils/system_error.h>

#include <openssl/err.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tavo::ldap {

namespace {

template <class Container, class ToText>
QString joined(const Container& container, ToText toText)
{
    return utils::containerString(container, u", ", u"{ ", u" }", u"none", toText);
}

} // namespace

bool Attribute::empty() const { return values.empty(); }

QString Attribute::toString() const
{
    const QString text =
        values.size() == 1 ? values.front() : joined(values, [](const QString& value) { return value; });
    return utils::format(u"%1: %2", name, text);
}

Attribute SearchEntry::getAttribute(const QString& name) const
{
    const auto found = std::find_if(attributes.begin(), attributes.end(),
        [&](const Attribute& attribute) { return attribute.name == name; });
    return found != attributes.end() ? *found : Attribute{name, {}};
}

QString SearchEntry::getAttributeFirstValue(const QString& name) const
{
    // By design: unlike getAttribute, a namesake without values doesn't end the scan.
    const auto found = std::find_if(attributes.begin(), attributes.end(),
        [&](const Attribute& attribute) { return attribute.name == name && !attribute.empty(); });
    return found != attributes.end() ? found->values.front() : QString();
}

QString SearchEntry::toString() const
{
    // By design: a single attribute is braced here, while a single value of an attribute is not.
    const QString text = joined(attributes, [](const Attribute& attribute) { return attribute.toString(); });
    return utils::format(u"%1: %2", dn, text);
}

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

int getLdapError(LDAP* ld)
{
    int code = 0;
    if (ldap_get_option(ld, LDAP_OPT_RESULT_CODE, &code) != LDAP_OPT_SUCCESS) {
        assertFailure(positions::resultCodeUnreadable, "rc == 0");
        return 0;
    }
    return code;
}

bool isLdapsUrl(const utils::Url& url) { return ldap_is_ldaps_url(url.toStdString().c_str()) != 0; }

QString dnFirstItem(const QString& dn)
{
    const QByteArray text = dn.toUtf8();
    LDAPDN parsed = nullptr;
    const int parseCode = ldap_str2dn(text.constData(), &parsed, LDAP_DN_FORMAT_LDAPV3);
    const int parseSystemError = errno;
    const utils::ScopeGuard freeParsed([&] { ldap_dnfree(parsed); });
    // By design: the pointer is tested and not the code, so an empty DN, which parses to nothing without an
    // error, throws with code 0.
    if (parsed == nullptr) {
        throw BaseError(parseCode, QStringLiteral("ldap_str2dn()"), parseSystemError);
    }

    char* rendered = nullptr;
    const int renderCode = ldap_rdn2str(parsed[0], &rendered, LDAP_DN_FORMAT_UFN);
    const int renderSystemError = errno;
    const utils::ScopeGuard freeRendered([&] { ldap_memfree(rendered); });
    if (renderCode != LDAP_SUCCESS) {
        throw BaseError(renderCode, QStringLiteral("ldap_rdn2str()"), renderSystemError);
    }
    return QString::fromUtf8(rendered);
}

void enableOpenldapDebugOutput(int level)
{
    setUpGlobalOptions();
    const int rc = ldap_set_option(nullptr, LDAP_OPT_DEBUG_LEVEL, &level);
    const int systemError = errno;
    if (rc != LDAP_OPT_SUCCESS) {
        throw BaseError(rc, QStringLiteral("enable LDAP debug output"), systemError);
    }
}

} // namespace tavo::ldap
