#pragma once

#include <tavo_utils/export.h>

#include <QString>
#include <QUrl>

#include <string>

namespace tavo::utils {

/// A URL whose default text is the one that C libraries and other programs take: fully encoded ASCII. A value
/// type, thread-safe as a QString is.
class TAVO_UTILS_EXPORT Url
{
public:
    /// An empty URL: isEmpty(), not isValid().
    Url() = default;
    Url(const QUrl& url); // NOLINT(google-explicit-constructor): the same thing in Qt's words

    /// Parses @p text strictly: a text that is no URL as it stands isn't corrected but gives one that is not
    /// isValid().
    explicit Url(const QString& text);

    /// The text of the URL, by default fully encoded (%-escapes, host name in ASCII) and complete, with the
    /// password if it holds one. An invalid URL gives the text it was made from, as it stands, so that who
    /// gets to use it can refuse it: an empty text would read as "the default".
    [[nodiscard]] QString toString(QUrl::FormattingOptions options = QUrl::FullyEncoded) const;

    /// The same as UTF-8.
    [[nodiscard]] std::string toStdString(QUrl::FormattingOptions options = QUrl::FullyEncoded) const;

    [[nodiscard]] const QUrl& toQUrl() const noexcept { return m_url; }

    /// The scheme in lower case, "ldap" for instance; empty when there is none.
    [[nodiscard]] QString scheme() const;
    /// The host name or address (an IPv6 address without brackets); empty when there is none.
    [[nodiscard]] QString host() const;
    /// The port, or @p defaultPort when the URL names none.
    [[nodiscard]] int port(int defaultPort = -1) const;

    [[nodiscard]] bool isValid() const;
    [[nodiscard]] bool isEmpty() const;
    /// Why the URL is not valid; empty when it is.
    [[nodiscard]] QString errorString() const;

    bool operator==(const Url& other) const = default;

private:
    QUrl m_url;

    /// Set when it is no URL; Qt keeps nothing of it.
    QString m_invalidText;
};

} // namespace tavo::utils
