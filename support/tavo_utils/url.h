#pragma once

#include <tavo_utils/export.h>

#include <QString>
#include <QUrl>

#include <string>

namespace tavo::utils {

/// A URL whose default text is the one that C libraries and other programs take: fully encoded ASCII. A plain
/// value type, as thread-safe as a `QString`.
class TAVO_UTILS_EXPORT Url
{
public:
    /// An empty URL, which is not valid.
    Url() = default;

    /// Implicit: a `QUrl` is the same value. Keeps the text that an invalid one was parsed from. Where
    /// `QUrl` has lost that, as when a setter made it invalid, the text is `(invalid URL)`.
    Url(const QUrl& url);

    /// Parses strictly: a text that is no URL gives an invalid one; nothing is corrected.
    explicit Url(const QString& text);

    /// The text of the URL; by default fully encoded (%-escapes, host name in ASCII) and complete, including
    /// the password. An invalid URL gives the text that it was made from, so that its user can refuse it: an
    /// empty text would mean "the default".
    QString toString(QUrl::FormattingOptions options = QUrl::FullyEncoded) const;

    /// The same, as UTF-8.
    std::string toStdString(QUrl::FormattingOptions options = QUrl::FullyEncoded) const;

    const QUrl& toQUrl() const noexcept { return m_url; }

    /// The scheme in lower case, such as `ldap`; empty when there is none.
    QString scheme() const;

    /// The host name or address (an IPv6 address without brackets); empty when there is none.
    QString host() const;

    /// The port, or `defaultPort` when the URL names none.
    int port(int defaultPort = -1) const;

    bool isValid() const;
    bool isEmpty() const;

    /// The URL without name and password, for logs and people. Where an "@" remains, escaped or not, as in what
    /// was typed wrongly, nothing is left before the last one, since a password may be anywhere before it; the
    /// result is then no valid URL.
    Url withoutUserInfo() const;

    /// Why the URL is invalid; empty when it is valid. Doesn't repeat the URL, which may hold a password.
    QString errorString() const;

    bool operator==(const Url& other) const = default;

private:
    QUrl m_url;

    /// The text of an invalid URL, of which `QUrl` keeps nothing.
    QString m_invalidText;
};

} // namespace tavo::utils
