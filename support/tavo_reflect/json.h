#pragma once

#include <tavo_reflect/export.h>
#include <tavo_reflect/reflect.h>
#include <tavo_utils/url.h>

#include <QByteArray>
#include <QString>

#include <chrono>
#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavo::reflect::json {

/// Composes one JSON text, compact and in UTF-8.
///
/// The caller is responsible for the structure: in an object a key before every value, an end for every
/// begin. Texts may hold anything: what isn't valid Unicode (lone surrogates, invalid UTF-8) becomes U+FFFD.
///
/// Threads: one thread uses a writer.
class TAVO_REFLECT_EXPORT Writer
{
public:
    Writer();
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void beginObject();
    void endObject();
    void beginArray();
    void endArray();
    void key(std::string_view name);

    void text(const QString& value);
    void text(std::string_view utf8);
    void boolean(bool value);
    void integer(std::int64_t value);
    void unsignedInteger(std::uint64_t value);

    /// The text composed so far.
    std::string toString() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

namespace detail {

/// Character types are left out: only the caller knows whether they are numbers or text.
template <class T>
concept SignedNumber = std::signed_integral<T> && !std::same_as<T, char> && !std::same_as<T, wchar_t>;

template <class T>
concept UnsignedNumber = std::unsigned_integral<T> && !std::same_as<T, bool> && !std::same_as<T, char8_t> &&
                         !std::same_as<T, char16_t> && !std::same_as<T, char32_t>;

} // namespace detail

/// \name How a value is written
///
/// Texts and URLs (fully encoded, password included) as strings; booleans and integers as such; durations as
/// their count; vectors as arrays; reflected records as objects.
/// \{
inline void write(Writer& writer, const QString& value) { writer.text(value); }

inline void write(Writer& writer, const QByteArray& utf8)
{
    writer.text(std::string_view(utf8.constData(), static_cast<std::size_t>(utf8.size())));
}

inline void write(Writer& writer, const std::string& utf8) { writer.text(std::string_view(utf8)); }

inline void write(Writer& writer, const utils::Url& url) { writer.text(std::string_view(url.toStdString())); }

inline void write(Writer& writer, std::same_as<bool> auto value) { writer.boolean(value); }

template <detail::SignedNumber T>
void write(Writer& writer, T value)
{
    writer.integer(value);
}

template <detail::UnsignedNumber T>
void write(Writer& writer, T value)
{
    writer.unsignedInteger(value);
}

template <std::integral Count, class Period>
void write(Writer& writer, std::chrono::duration<Count, Period> value)
{
    write(writer, value.count());
}

template <class T>
void write(Writer& writer, const std::vector<T>& values);

template <Reflected Record>
void write(Writer& writer, const Record& record);
/// \}

namespace detail {

template <class T>
void writeMember(Writer& writer, const char* name, const T& value)
{
    writer.key(name);
    write(writer, value);
}

/// An absent value is left out: it has no member, rather than a null.
template <class T>
void writeMember(Writer& writer, const char* name, const std::optional<T>& value)
{
    if (value) {
        writeMember(writer, name, *value);
    }
}

} // namespace detail

template <class T>
void write(Writer& writer, const std::vector<T>& values)
{
    writer.beginArray();
    for (const T& value : values) {
        write(writer, value);
    }
    writer.endArray();
}

template <Reflected Record>
void write(Writer& writer, const Record& record)
{
    writer.beginObject();
    forEachField(
        record, [&](const char* name, const auto& value) { detail::writeMember(writer, name, value); });
    writer.endObject();
}

/// The record as one JSON object: a member for every field, in the order of `Fields`. A `std::optional`
/// without a value has no member. Compact, valid UTF-8; `/` is not escaped.
template <Reflected Record>
std::string serialize(const Record& record)
{
    Writer writer;
    write(writer, record);
    return writer.toString();
}

} // namespace tavo::reflect::json
