#include <tavo_utils/url.h>

namespace tavo::utils {

Url::Url(const QUrl& url)
    : m_url(url)
{}

Url::Url(const QString& text)
    : m_url(text, QUrl::StrictMode)
{}

QString Url::toString(QUrl::FormattingOptions options) const { return m_url.toString(options); }

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
