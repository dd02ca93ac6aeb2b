#pragma once

#include <ldap/entry.h>
#include <ldap/export.h>

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <optional>
#include <vector>

namespace tavo::ldap {

/// A range of an attribute's values, numbered from 0 in the server's order.
struct ValueRange
{
    std::size_t first = 0;

    /// Absent when the range goes to the end (`*`).
    std::optional<std::size_t> last;

    /// The range that an attribute description such as `member;range=0-1499` names.
    /// \param attribute the attribute without the range, in any case
    /// \return nothing when it is no range of this attribute
    TAVO_LDAP_EXPORT static std::optional<ValueRange> parse(
        const QString& description, const QString& attribute);
};

/// Puts together an attribute that a server sends in ranges.
///
/// Active Directory does so beyond 1,500 values: an entry then has `member` without values, and the first of
/// them under `member;range=0-1499`. The next are had by asking the entry for `member;range=1500-*`.
///
///     RangedValues members(u"member"_qs);
///     members.add(first);                    // the attribute `member;range=0-1499`
///     while (!members.isComplete())
///         members.add(ask(dn, members.next()));
///     group.members = members.take();
///
/// Fetches of groups do this by themselves, and so does a paged search with
/// `SearchParams::rangedAttributes`. Not thread-safe.
class TAVO_LDAP_EXPORT RangedValues
{
public:
    /// More values than this are refused, so that a server can't go on for ever.
    static constexpr std::size_t kMaxValues = 16'000'000;

    /// \param attribute the attribute without a range, such as `member`
    explicit RangedValues(QString attribute);

    /// Appends a range's values. Those of an overlap, which are known by their numbers, are dropped; equal
    /// values stay. How many values a server sends at a time is its choice.
    ///
    /// \throws BaseError (LDAP_DECODING_ERROR) when `range` is no range of the attribute, leaves a gap behind
    ///         the values so far, has another number of values than it says, brings none that is new, or
    ///         would make more than `kMaxValues`
    void add(Attribute range);

    /// Whether the last range has come.
    bool isComplete() const { return m_isComplete; }

    /// The description of the range to ask for next, such as `member;range=1500-*`.
    QByteArray next() const;

    /// The values; none are left here.
    std::vector<QString> take();

private:
    QString m_attribute;
    std::vector<QString> m_values;
    bool m_isComplete = false;
};

} // namespace tavo::ldap
