#pragma once

#include <tavo_utils/export.h>
#include <tavo_utils/url.h>

#include <QByteArray>
#include <QString>
#include <QStringView>
#include <QVarLengthArray>

#include <concepts>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace tavo::utils {

namespace detail {

/// Character types are left out: only the caller knows whether they are numbers or text.
template <class T>
concept Integer =
    std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char> && !std::same_as<T, wchar_t> &&
    !std::same_as<T, char8_t> && !std::same_as<T, char16_t> && !std::same_as<T, char32_t>;

} // namespace detail

/// \name The text that a `Formatter` inserts for a value
///
/// Bytes are read as UTF-8, and invalid ones become U+FFFD; a null `const char*` is the empty text. A URL
/// loses its password, because most formatted text is logged.
/// \{
inline QString toText(const QString& text) { return text; }
TAVO_UTILS_EXPORT QString toText(QStringView text);
TAVO_UTILS_EXPORT QString toText(const QByteArray& utf8);
TAVO_UTILS_EXPORT QString toText(std::string_view utf8);
TAVO_UTILS_EXPORT QString toText(const std::string& utf8);
TAVO_UTILS_EXPORT QString toText(const char* utf8);
TAVO_UTILS_EXPORT QString toText(const Url& url);

/// `true` or `false`.
template <std::same_as<bool> T>
QString toText(T value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

/// Decimal digits.
template <detail::Integer T>
QString toText(T value)
{
    if constexpr (std::is_signed_v<T>) {
        return QString::number(static_cast<qlonglong>(value));
    } else {
        return QString::number(static_cast<qulonglong>(value));
    }
}

/// The shortest form with up to six significant digits; the decimal separator is a full stop in any locale.
template <std::floating_point T>
QString toText(T value)
{
    return QString::number(static_cast<double>(value));
}
/// \}

/// Inserts the texts of values into a template with the placeholders `%1` to `%99`.
///
///     tavo::utils::Formatter(u"Found %1 entries on page %2").arg(entries.size()).arg(page).toString()
///
/// The template is read once: the text of an argument is never taken for a placeholder. A placeholder may
/// occur any number of times; one without an argument is kept as it is. At most two digits after `%` belong
/// to it. The template is not copied and must outlive the formatter.
///
/// Threads: one thread uses a formatter.
class TAVO_UTILS_EXPORT Formatter
{
public:
    explicit Formatter(QStringView pattern)
        : m_pattern(pattern)
    {}

    /// Sets the value of the next placeholder: of `%1` in the first call, of `%2` in the second, and so on.
    template <class T>
    Formatter& arg(const T& value) &
    {
        m_args.push_back(toText(value));
        return *this;
    }

    template <class T>
    Formatter&& arg(const T& value) &&
    {
        m_args.push_back(toText(value));
        return std::move(*this);
    }

    /// The template with the arguments inserted.
    QString toString() const;

private:
    QStringView m_pattern;
    /// Few templates have more: the list itself needs no memory.
    QVarLengthArray<QString, 8> m_args;
};

/// A `Formatter` in one call: `args` are the values of `%1`, `%2` and so on.
template <class... Args>
QString format(QStringView pattern, const Args&... args)
{
    Formatter formatter(pattern);
    (formatter.arg(args), ...);
    return formatter.toString();
}

/// Converts with the `toText` overload for the type.
struct DefaultToText
{
    template <class T>
    QString operator()(const T& value) const
    {
        return toText(value);
    }
};

/// The elements of a container as one text: `prefix`, the elements with `separator` between them, `suffix`.
///
///     containerString(std::vector{1, 2}, u", ", u"{ ", u" }", u"none") // "{ 1, 2 }"
///
/// \param emptyText the whole result for an empty container
/// \param elementToText turns an element into any type that `toText` takes
template <class Container, class ToText = DefaultToText>
QString containerString(const Container& container, QStringView separator, QStringView prefix,
    QStringView suffix, QStringView emptyText, const ToText& elementToText = {})
{
    QString joined;
    bool first = true;
    for (const auto& element : container) {
        joined += first ? prefix : separator;
        joined += toText(elementToText(element));
        first = false;
    }
    if (first) {
        return emptyText.toString();
    }
    joined += suffix;
    return joined;
}

} // namespace tavo::utils
