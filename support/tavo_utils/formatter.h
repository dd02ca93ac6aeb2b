#pragma once

#include <tavo_utils/export.h>
#include <tavo_utils/url.h>

#include <QByteArray>
#include <QString>
#include <QStringView>

#include <concepts>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace tavo::utils {

/// @name The text of a value as a Formatter puts it in
/// Bytes are read as UTF-8, invalid ones become U+FFFD; a null `const char*` is the empty text. A URL loses
/// its password: what is formatted is mostly logged.
/// @{
[[nodiscard]] inline QString toText(const QString& text) { return text; }
[[nodiscard]] TAVO_UTILS_EXPORT QString toText(QStringView text);
[[nodiscard]] TAVO_UTILS_EXPORT QString toText(const QByteArray& utf8);
[[nodiscard]] TAVO_UTILS_EXPORT QString toText(std::string_view utf8);
[[nodiscard]] TAVO_UTILS_EXPORT QString toText(const std::string& utf8);
[[nodiscard]] TAVO_UTILS_EXPORT QString toText(const char* utf8);
[[nodiscard]] TAVO_UTILS_EXPORT QString toText(const Url& url);

/// "true" or "false".
template <std::same_as<bool> T>
[[nodiscard]] QString toText(T value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

/// An integer in decimal digits. Character types are left out: whether they are numbers or text is the
/// caller's to say.
template <std::integral T>
requires(!std::same_as<T, bool> && !std::same_as<T, char> && !std::same_as<T, wchar_t> &&
         !std::same_as<T, char8_t> && !std::same_as<T, char16_t> && !std::same_as<T, char32_t>)
    [[nodiscard]] QString toText(T value)
{
    if constexpr (std::is_signed_v<T>) {
        return QString::number(static_cast<qlonglong>(value));
    } else {
        return QString::number(static_cast<qulonglong>(value));
    }
}

/// The shortest form with up to six significant digits, with a full stop whatever the locale.
template <std::floating_point T>
[[nodiscard]] QString toText(T value)
{
    return QString::number(static_cast<double>(value));
}
/// @}

/// Puts the texts of values into a template with the placeholders "%1" to "%99".
///
///     tavo::utils::Formatter(u"Found %1 entries on page %2").arg(entries.size()).arg(page).toString()
///
/// The template is read once: what an argument holds is never taken for a placeholder. A placeholder may
/// stand any number of times; one without an argument stays as it is. Of the digits after "%", up to two are
/// taken. The template is not copied and has to outlive the formatter. For one thread.
class TAVO_UTILS_EXPORT Formatter
{
public:
    explicit Formatter(QStringView pattern)
        : m_pattern(pattern)
    {}

    /// The value of the next placeholder: of "%1" at the first call, of "%2" at the second, and so on.
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

    /// The template with the arguments in their places.
    [[nodiscard]] QString toString() const;

private:
    QStringView m_pattern;
    std::vector<QString> m_args;
};

/// Formatter in one call: @p args are the values of "%1", "%2" and so on.
template <class... Args>
[[nodiscard]] QString format(QStringView pattern, const Args&... args)
{
    Formatter formatter(pattern);
    (formatter.arg(args), ...);
    return formatter.toString();
}

/// Converts with the toText() overload for the type.
struct DefaultToText
{
    template <class T>
    QString operator()(const T& value) const
    {
        return toText(value);
    }
};

/// The elements of @p container as one text: @p emptyText when there is none, else @p prefix, the elements
/// with
/// @p separator between them, @p suffix.
///
///     containerString(std::vector{1, 2}, u", ", u"{ ", u" }", u"none") // "{ 1, 2 }"
///
/// @p elementToText turns an element into any type that toText() takes.
template <class Container, class ToText = DefaultToText>
[[nodiscard]] QString containerString(const Container& container, QStringView separator, QStringView prefix,
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
