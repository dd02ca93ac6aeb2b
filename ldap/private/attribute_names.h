#pragma once

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <vector>

namespace tavo::ldap {

/// An attribute description (`mail`, `member;range=0-1499`) as records have it and as the client library takes
/// it.
struct AttributeName
{
    /// Bytes that aren't valid UTF-8 become U+FFFD, in both forms.
    explicit AttributeName(const QByteArray& utf8)
        : text(QString::fromUtf8(utf8))
        , key(text.toUtf8())
    {}

    QString text;
    QByteArray key;
};

/// The names of the attributes that one search reads. They are decoded once, and all its entries share them.
///
/// Lives with the search; one thread at a time uses it.
class AttributeNames
{
public:
    /// \param requested none for all attributes that an entry carries
    /// \param ranged see `SearchParams::rangedAttributes`
    explicit AttributeNames(
        const std::vector<QByteArray>& requested, const std::vector<QByteArray>& ranged = {});

    const std::vector<AttributeName>& requested() const { return m_requested; }
    const std::vector<AttributeName>& ranged() const { return m_ranged; }

    /// A name that the server has sent.
    AttributeName sent(const char* name);

private:
    std::vector<AttributeName> m_requested;
    std::vector<AttributeName> m_ranged;
    /// Those seen so far, up to a limit.
    std::vector<AttributeName> m_sent;
    /// Where in `m_sent` the last one was.
    std::size_t m_last = 0;
};

} // namespace tavo::ldap
