#include "parsed_json.h"

#include "invariant.h"

namespace tavo::fuzz {

namespace {

/// The code point at `i`, which is moved to its last unit.
char32_t characterAt(const QString& text, qsizetype& i)
{
    const QChar unit = text[i];
    if (!unit.isSurrogate()) {
        return unit.unicode();
    }
    if (unit.isHighSurrogate() && i + 1 < text.size() && text[i + 1].isLowSurrogate()) {
        ++i;
        return QChar::surrogateToUcs4(unit, text[i]);
    }
    return QChar::ReplacementCharacter;
}

/// The encoding in that many bytes, the first of which begins with `mark`.
std::string encoded(char32_t character, int size, unsigned mark)
{
    std::string bytes;
    for (int left = size - 1; left > 0; --left) {
        bytes.insert(bytes.begin(), static_cast<char>(0x80U | (character & 0x3fU)));
        character >>= 6U;
    }
    bytes.insert(bytes.begin(), static_cast<char>(mark | character));
    return bytes;
}

/// Hand-written, because Qt's own conversions differ over lone surrogates and a leading U+FEFF.
std::string utf8(const QString& text)
{
    std::string bytes;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char32_t character = characterAt(text, i);
        if (character < 0x80) {
            bytes += static_cast<char>(character);
        } else if (character < 0x800) {
            bytes += encoded(character, 2, 0xc0);
        } else if (character < 0x10000) {
            bytes += encoded(character, 3, 0xe0);
        } else {
            bytes += encoded(character, 4, 0xf0);
        }
    }
    return bytes;
}

} // namespace

rapidjson::Document parsedObject(const std::string& json)
{
    rapidjson::Document document;
    document.Parse<rapidjson::kParseValidateEncodingFlag>(json.data(), json.size());
    require(!document.HasParseError() && document.IsObject(), "a record's JSON is an object");
    return document;
}

bool isText(const rapidjson::Value& value, const QString& text)
{
    return value.IsString() && std::string(value.GetString(), value.GetStringLength()) == utf8(text);
}

bool holds(const rapidjson::Value& object, const char* member, const QString& text)
{
    const auto found = object.FindMember(member);
    return found != object.MemberEnd() && isText(found->value, text);
}

} // namespace tavo::fuzz
