#include "ldap/private/server_url.h"

#include <QStringList>
#include <QStringView>

namespace tavo::ldap {

namespace {

/// Without the brackets and the "URL:" in which the client library also takes a URL.
QStringView withoutEnclosure(QStringView url)
{
    const QStringView label = u"URL:";
    if (url.startsWith(u'<')) {
        url = url.sliced(1);
    }
    return url.startsWith(label, Qt::CaseInsensitive) ? url.sliced(label.size()) : url;
}

bool isScheme(QStringView text, QStringView scheme) { return text.compare(scheme, Qt::CaseInsensitive) == 0; }

/// The part of a URL between "//" and its path.
QStringView authorityOf(QStringView afterScheme)
{
    qsizetype end = 0;
    while (end < afterScheme.size() && !QStringView(u"/?#>").contains(afterScheme[end])) {
        ++end;
    }
    return afterScheme.first(end);
}

QString refusalOfOne(QStringView given)
{
    const QStringView url = withoutEnclosure(given);
    const QStringView separator = u"://";
    const qsizetype schemeEnd = url.indexOf(separator);
    const QStringView scheme = schemeEnd < 0 ? QStringView() : url.first(schemeEnd);
    const bool isLocal = isScheme(scheme, u"ldapi");
    if (!isLocal && !isScheme(scheme, u"ldap") && !isScheme(scheme, u"ldaps")) {
        return QStringLiteral(
            "the URL, or one of the list, doesn't begin with ldap://, ldaps:// or ldapi://");
    }
    const QStringView authority = authorityOf(url.sliced(schemeEnd + separator.size()));
    if (authority.contains(u'@')) {
        return QStringLiteral(
            "the URL holds a name or password, which LDAP URLs can't; give them to the bind instead");
    }
    if (!isLocal && (authority.isEmpty() || authority.startsWith(u':'))) {
        return QStringLiteral("the URL names no host");
    }
    return {};
}

} // namespace

QString refusalOf(const utils::Url& url)
{
    // The client library's separators of a list.
    const QStringList urls = url.toString().replace(u',', u' ').split(u' ', Qt::SkipEmptyParts);
    if (urls.isEmpty()) {
        return QStringLiteral("the URL is empty");
    }
    for (const QString& one : urls) {
        const QString reason = refusalOfOne(one);
        if (!reason.isEmpty()) {
            return reason;
        }
    }
    return {};
}

} // namespace tavo::ldap
