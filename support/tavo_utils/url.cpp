#include "tavo_utils/url.h"

#include <algorithm>

namespace tavo::utils {

namespace {

/// Where `QUrl` begins to repeat the text that it couldn't parse.
const QString kQuotedSource = QStringLiteral("; source was \"");

/// What may be shown of a text that could not be parsed: nothing before its last "@", escaped or not.
QString textWithoutUserInfo(const QString& text)
{
    qsizetype begin = 0;
    // Also escaped, once or twice, and in the forms that stand for it in a host's name.
    for (const QStringView at : {u"@", u"%40", u"%2540", u"\uff20", u"\ufe6b"}) {
        const qsizetype last = text.lastIndexOf(at);
        begin = last < 0 ? begin : std::max(begin, last + at.size());
    }
    return text.mid(begin);
}

/// Whether parsing this text gives an invalid URL like the one with this error.
bool failsAlike(const QString& text, const QString& error)
{
    return QUrl(text, QUrl::TolerantMode).errorString() == error ||
           QUrl(text, QUrl::StrictMode).errorString() == error;
}

/// The text that an invalid URL was parsed from, or one that is no URL either; null for others.
///
/// An invalid `QUrl` shows its text in `errorString` only: `REASON; source was "TEXT"; PARTS`. Text and parts
/// may hold `";` themselves, and after a setter the text is just its argument, which may be a password or a
/// URL by itself. So a text is believed when it can be seen to fail in the same way.
QString invalidTextOf(const QUrl& url)
{
    const QString error = url.errorString();
    if (error.isEmpty()) {
        return {};
    }
    const QString after = QStringLiteral("\";");
    const qsizetype begin = error.indexOf(kQuotedSource) + kQuotedSource.size();
    for (qsizetype end = error.indexOf(after, begin); end >= 0; end = error.indexOf(after, end + 1)) {
        QString text = error.mid(begin, end - begin);
        if (failsAlike(text, error)) {
            return text;
        }
    }
    return QStringLiteral("(invalid URL)");
}

} // namespace

Url::Url(const QUrl& url)
    : m_url(url)
    , m_invalidText(invalidTextOf(url))
{}

Url::Url(const QString& text)
    : m_url(text, QUrl::StrictMode)
{
    if (!m_url.isValid()) {
        m_invalidText = text;
    }
}

QString Url::toString(QUrl::FormattingOptions options) const
{
    if (m_invalidText.isEmpty()) {
        return m_url.toString(options);
    }
    return options.testFlag(QUrl::RemovePassword) ? textWithoutUserInfo(m_invalidText) : m_invalidText;
}

std::string Url::toStdString(QUrl::FormattingOptions options) const
{
    return toString(options).toStdString();
}

QString Url::scheme() const { return m_url.scheme(); }

QString Url::host() const { return m_url.host(); }

int Url::port(int defaultPort) const { return m_url.port(defaultPort); }

bool Url::isValid() const { return m_url.isValid(); }

bool Url::isEmpty() const { return m_url.isEmpty(); }

Url Url::withoutUserInfo() const
{
    Url shown = *this;
    if (m_invalidText.isEmpty()) {
        shown.m_url.setUserInfo({});
    }
    // What is typed wrongly has its name and password in another part, such as the path or the query.
    const QString text = shown.toString();
    const QString shortened = textWithoutUserInfo(text);
    if (shortened != text) {
        shown.m_url = QUrl();
        shown.m_invalidText = shortened;
    }
    return shown;
}

QString Url::errorString() const
{
    // The reason ends where characters of the URL are quoted.
    const QString error = m_url.errorString();
    const QString reason = error.left(error.indexOf(kQuotedSource));
    return reason.left(reason.indexOf(QLatin1String(" (character")));
}

} // namespace tavo::utils
