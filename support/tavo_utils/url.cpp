#include "tavo_utils/url.h"

namespace tavo::utils {

namespace {

/// What may be shown of a text that could not be parsed: nothing before its last "@".
QString withoutUserInfo(const QString& text) { return text.mid(text.lastIndexOf(u'@') + 1); }

} // namespace

Url::Url(const QUrl& url)
    : m_url(url)
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
    return options.testFlag(QUrl::RemovePassword) ? withoutUserInfo(m_invalidText) : m_invalidText;
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

QString Url::errorString() const { return m_url.errorString(); }

} // namespace tavo::utils
