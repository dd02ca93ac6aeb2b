#include "ldap/private/failure_details.h"

#include <ldap/error.h>
#include <ldap/search_report.h>
#include <tavo_utils/scope_guard.h>

#include <openssl/err.h>

#include <array>
#include <utility>

namespace tavo::ldap {

namespace {

QString textOption(LDAP* ld, int option)
{
    char* text = nullptr;
    const utils::ScopeGuard freeText([&] { ldap_memfree(text); });
    ldap_get_option(ld, option, &text);
    return QString::fromUtf8(text);
}

QString openSslText(unsigned long error)
{
    // As much as OpenSSL asks for.
    std::array<char, 256> text{};
    ERR_error_string(error, text.data());
    return QString::fromUtf8(text.data());
}

QString withoutSecret(QString text, const QString& secret)
{
    if (!secret.isEmpty() && text.contains(secret)) {
        return QStringLiteral("(withheld: the text contains the password)");
    }
    return text;
}

} // namespace

void clearFailureDetails(LDAP* ld)
{
    ldap_set_option(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE, nullptr);
    ldap_set_option(ld, LDAP_OPT_MATCHED_DN, nullptr);
}

void addFailureDetails(BaseError& error, LDAP* ld, const QString& secret)
{
    QString message = withoutSecret(textOption(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE), secret);
    if (error.ldapCode > 0) {
        error.serverMessage = std::move(message);
        error.matchedDn = withoutSecret(textOption(ld, LDAP_OPT_MATCHED_DN), secret);
        return;
    }
    if (const auto* const tlsError = dynamic_cast<const TlsError*>(&error);
        tlsError != nullptr && message.isEmpty()) {
        message = openSslText(tlsError->sslError);
    }
    if (!message.isEmpty()) {
        error.connectFailure = {ConnectFailure::Kind::tls, textOption(ld, LDAP_OPT_URI), std::move(message)};
    }
}

void fillReport(SearchReport& report, const BaseError& error)
{
    report.ldapCode = error.ldapCode;
    report.serverMessage = error.serverMessage;
    report.matchedDn = error.matchedDn;
    report.connectFailure = error.connectFailure;
}

} // namespace tavo::ldap
