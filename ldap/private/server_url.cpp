#include "ldap/private/server_url.h"

#include <QStringView>
#include <QUrl>

#include <algorithm>
#include <iterator>
#include <vector>

namespace tavo::ldap {

namespace {

bool isScheme(QStringView text, QStringView scheme) { return text.compare(scheme, Qt::CaseInsensitive) == 0; }

/// One URL of a list, as the client library reads it.
struct ServerUrl
{
    QString scheme;

    /// What stands between "//" and the path, decoded: the host and the port, or the path of a socket.
    QString authority;

    /// What stands behind the fourth question mark (RFC 4516).
    QString extensions;

    bool isLocal() const { return isScheme(scheme, u"ldapi"); }
    bool isSecure() const { return isScheme(scheme, u"ldaps"); }
};

/// Without the brackets and the "URL:" in which the client library also takes a URL.
QStringView withoutEnclosure(QStringView url)
{
    const QStringView label = u"URL:";
    if (url.startsWith(u'<')) {
        url = url.sliced(1);
        url = url.endsWith(u'>') ? url.chopped(1) : url;
    }
    return url.startsWith(label, Qt::CaseInsensitive) ? url.sliced(label.size()) : url;
}

ServerUrl parse(QStringView given)
{
    const QStringView url = withoutEnclosure(given);
    const QStringView separator = u"://";
    const qsizetype schemeEnd = url.indexOf(separator);
    if (schemeEnd < 0) {
        return {};
    }
    const QStringView rest = url.sliced(schemeEnd + separator.size());
    const auto end = std::find_if(rest.begin(), rest.end(), [](QChar c) { return c == u'/' || c == u'?'; });
    const QByteArray encoded = rest.first(std::distance(rest.begin(), end)).toUtf8();
    return {url.first(schemeEnd).toString(), QUrl::fromPercentEncoding(encoded),
        rest.toString().section(u'?', 4)};
}

bool namesHost(const ServerUrl& url)
{
    const QString& authority = url.authority;
    return url.isLocal() || !(authority.isEmpty() || authority.startsWith(u':') ||
                                authority.startsWith(QLatin1String("[]")) || authority.startsWith(QChar(0)));
}

QString refusalOfOne(const ServerUrl& url)
{
    if (!url.isLocal() && !url.isSecure() && !isScheme(url.scheme, u"ldap")) {
        return QStringLiteral(
            "the URL, or one of the list, doesn't begin with ldap://, ldaps:// or ldapi://");
    }
    const bool isPath = url.isLocal() && url.authority.startsWith(u'/');
    if (!isPath && url.authority.contains(u'@')) {
        return QStringLiteral(
            "the URL holds a name or password, which LDAP URLs can't; give them to the bind instead");
    }
    if (!namesHost(url)) {
        return QStringLiteral("the URL names no host");
    }
    if (!url.extensions.isEmpty()) {
        // The client library knows one, StartTLS, and would upgrade without what the host has configured.
        return QStringLiteral("the URL has extensions; ask for StartTLS in the settings instead");
    }
    return {};
}

} // namespace

QStringList urlsOf(const utils::Url& url)
{
    // The client library's separators of a list.
    return url.toString().replace(u',', u' ').split(u' ', Qt::SkipEmptyParts);
}

QString refusalOf(const utils::Url& url)
{
    const QString text = url.toString();
    if (text.contains(QChar(0))) {
        return QStringLiteral("the URL holds a NUL");
    }
    const QStringList list = urlsOf(url);
    if (list.isEmpty()) {
        return QStringLiteral("the URL is empty");
    }
    std::vector<ServerUrl> urls;
    std::transform(list.begin(), list.end(), std::back_inserter(urls), &parse);
    for (const ServerUrl& one : urls) {
        QString reason = refusalOfOne(one);
        if (!reason.isEmpty()) {
            return reason;
        }
    }
    // The list is secure or it isn't; half of one would go without certificates, or in the clear.
    const auto isSecure = [](const ServerUrl& one) { return one.isSecure(); };
    if (std::any_of(urls.begin(), urls.end(), isSecure)) {
        if (!std::all_of(urls.begin(), urls.end(), isSecure)) {
            return QStringLiteral("the list mixes ldaps:// with other URLs");
        }
        if (!text.startsWith(QLatin1String("ldaps://"), Qt::CaseInsensitive)) {
            return QStringLiteral("the text doesn't begin with ldaps://");
        }
    }
    return {};
}

} // namespace tavo::ldap
