#include "ldap/private/failure_details.h"

#include <ldap/error.h>
#include <ldap/private/wipe.h>
#include <ldap/private/wire/connection.h>
#include <ldap/search_report.h>
#include <tavo_utils/scope_guard.h>

#include <openssl/err.h>

#include <array>
#include <new>
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

/// Whether a text holds what was sent: the password as UTF-8, which has no lone surrogates. The client library's
/// texts end at a NUL, so of a password with one they hold what is before it.
bool contains(const QString& text, const QString& secret)
{
    QByteArray sent = secret.toUtf8();
    const utils::ScopeGuard wipeSent([&] { wipe(sent); });
    QString shown = QString::fromUtf8(sent.constData());
    const utils::ScopeGuard wipeShown([&] { wipe(shown); });
    return !shown.isEmpty() && text.contains(shown);
}

/// The error gets the texts once they are known to be harmless: looking may run out of memory.
void addServersWords(BaseError& error, LDAP* ld, const QString& secret)
{
    QString message = textOption(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE);
    if (contains(message, secret)) {
        message = QStringLiteral("(withheld: the text contains the password)");
    }
    QString matchedDn = textOption(ld, LDAP_OPT_MATCHED_DN);
    if (contains(matchedDn, secret)) {
        matchedDn.clear();
    }
    error.serverMessage = std::move(message);
    error.matchedDn = std::move(matchedDn);
}

/// The codes with which the client library reports that there is no connection. For others its text may be
/// what it has read of a broken answer.
bool meansNoConnection(int code) { return code == LDAP_SERVER_DOWN || code == LDAP_CONNECT_ERROR; }

void addTlsWords(BaseError& error, LDAP* ld, const QString& secret)
{
    QString words = textOption(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE);
    if (const auto* const tlsError = dynamic_cast<const TlsError*>(&error);
        tlsError != nullptr && words.isEmpty()) {
        words = openSslText(tlsError->sslError);
    }
    if (!words.isEmpty() && !contains(words, secret)) {
        error.connectFailure = {ConnectFailure::Kind::tls, textOption(ld, LDAP_OPT_URI), std::move(words)};
    }
}

} // namespace

void clearFailureDetails(LDAP* ld)
{
    ldap_set_option(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE, nullptr);
    ldap_set_option(ld, LDAP_OPT_MATCHED_DN, nullptr);
}

void addFailureDetails(BaseError& error, LDAP* ld, bool isSecure, const QString& secret)
{
    try {
        if (error.ldapCode > 0) {
            addServersWords(error, ld, secret);
        } else if (isSecure && meansNoConnection(error.ldapCode)) {
            addTlsWords(error, ld, secret);
        }
    } catch (const std::bad_alloc&) {
        // The error matters more than its details.
    }
}

bool isSecure(LDAP* ld)
{
    void* tlsSession = nullptr;
    ldap_get_option(ld, LDAP_OPT_X_TLS_SSL_CTX, static_cast<void*>(&tlsSession));
    return tlsSession != nullptr ||
           textOption(ld, LDAP_OPT_URI).startsWith(QLatin1String("ldaps:"), Qt::CaseInsensitive);
}

void fillReport(SearchReport& report, const BaseError& error)
{
    report.ldapCode = error.ldapCode;
    report.serverMessage = error.serverMessage;
    report.matchedDn = error.matchedDn;
    report.connectFailure = error.connectFailure;
}

SearchReport cancelledReport(const Connection* connection)
{
    SearchReport report;
    report.ldapCode = LDAP_USER_CANCELLED;
    if (connection != nullptr) {
        connection->explain(report);
    }
    return report;
}

} // namespace tavo::ldap
