#include "tavo_reflect/json.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace tavo::reflect::json {

namespace {

/// `QString::toUtf8` writes "?" for a lone surrogate; the detour through UTF-32 gives U+FFFD. It doesn't end
/// in `QString::fromUcs4`, which takes a leading U+FEFF for a byte order mark.
QByteArray toValidUtf8(const QString& text)
{
    if (text.isValidUtf16()) {
        return text.toUtf8();
    }
    QString valid;
    for (const char32_t character : text.toUcs4()) {
        valid += QChar::fromUcs4(character);
    }
    return valid.toUtf8();
}

} // namespace

struct Writer::Impl
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer{buffer};
};

Writer::Writer()
    : m_impl(std::make_unique<Impl>())
{}

Writer::~Writer() = default;

void Writer::beginObject() { m_impl->writer.StartObject(); }

void Writer::endObject() { m_impl->writer.EndObject(); }

void Writer::beginArray() { m_impl->writer.StartArray(); }

void Writer::endArray() { m_impl->writer.EndArray(); }

void Writer::key(std::string_view name)
{
    m_impl->writer.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
}

void Writer::text(const QString& value)
{
    const QByteArray utf8 = toValidUtf8(value);
    m_impl->writer.String(utf8.constData(), static_cast<rapidjson::SizeType>(utf8.size()));
}

void Writer::text(std::string_view utf8)
{
    text(QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size())));
}

void Writer::boolean(bool value) { m_impl->writer.Bool(value); }

void Writer::integer(std::int64_t value) { m_impl->writer.Int64(value); }

void Writer::unsignedInteger(std::uint64_t value) { m_impl->writer.Uint64(value); }

std::string Writer::toString() const { return {m_impl->buffer.GetString(), m_impl->buffer.GetSize()}; }

} // namespace tavo::reflect::json
