#include "ldap/ranged_values.h"

#include <ldap/error.h>

#include <ldap.h>

#include <QStringView>

#include <iterator>
#include <utility>

namespace tavo::ldap {

namespace {

constexpr QStringView kRangeOption = u";range=";

/// A decimal number, without sign and blanks.
std::optional<std::size_t> readNumber(QStringView text)
{
    for (const QChar c : text) {
        if (c < u'0' || c > u'9') {
            return std::nullopt;
        }
    }
    bool isNumber = false;
    const qulonglong number = text.toULongLong(&isNumber);
    return isNumber ? std::optional<std::size_t>(number) : std::nullopt;
}

[[noreturn]] void refuse(const QString& attribute)
{
    throw BaseError(LDAP_DECODING_ERROR, QStringLiteral("read the values of ") + attribute, 0);
}

} // namespace

std::optional<ValueRange> ValueRange::parse(const QString& description, const QString& attribute)
{
    if (!description.startsWith(attribute, Qt::CaseInsensitive)) {
        return std::nullopt;
    }
    const QStringView options = QStringView(description).sliced(attribute.size());
    if (!options.startsWith(kRangeOption, Qt::CaseInsensitive)) {
        return std::nullopt;
    }
    const QStringView range = options.sliced(kRangeOption.size());
    const qsizetype dash = range.indexOf(u'-');
    const auto first = dash < 0 ? std::nullopt : readNumber(range.first(dash));
    if (!first) {
        return std::nullopt;
    }
    const QStringView end = range.sliced(dash + 1);
    if (end == u"*") {
        return ValueRange{*first, std::nullopt};
    }
    const auto last = readNumber(end);
    if (!last || *last < *first) {
        return std::nullopt;
    }
    return ValueRange{*first, last};
}

RangedValues::RangedValues(QString attribute)
    : m_attribute(std::move(attribute))
{}

void RangedValues::add(Attribute range)
{
    const std::optional<ValueRange> bounds = ValueRange::parse(range.name, m_attribute);
    const std::size_t known = m_values.size();
    if (!bounds || bounds->first > known) {
        refuse(range.name);
    }
    const std::size_t count = range.values.size();
    const std::size_t overlap = known - bounds->first;
    const bool isAsLongAsItSays = !bounds->last || *bounds->last - bounds->first == count - 1;
    if (count <= overlap || !isAsLongAsItSays || count - overlap > kMaxValues - known) {
        refuse(range.name);
    }
    const auto firstNew = range.values.begin() + static_cast<std::ptrdiff_t>(overlap);
    m_values.insert(m_values.end(), std::move_iterator(firstNew), std::move_iterator(range.values.end()));
    m_isComplete = !bounds->last;
}

QByteArray RangedValues::next() const
{
    return (m_attribute + kRangeOption.toString()).toUtf8() +
           QByteArray::number(qulonglong{m_values.size()}) + "-*";
}

std::vector<QString> RangedValues::take() { return std::exchange(m_values, {}); }

} // namespace tavo::ldap
