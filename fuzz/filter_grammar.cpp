#include "filter_grammar.h"

#include <algorithm>
#include <cctype>
#include <cstddef>

namespace tavo::fuzz {

namespace {

// One function for each rule of the grammar. Those that take a whole text say whether it is one; the class
// reads on.

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isHexDigit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

bool isKeyCharacter(char c) { return isLetter(c) || isDigit(c) || c == '-'; }

bool isDescr(std::string_view text)
{
    return !text.empty() && isLetter(text[0]) && std::all_of(text.begin(), text.end(), isKeyCharacter);
}

/// The text up to the character, or all of it; removes both from the text.
std::string_view cutTo(std::string_view& text, char end)
{
    const std::size_t at = std::min(text.find(end), text.size());
    const std::string_view part = text.substr(0, at);
    text.remove_prefix(std::min(at + 1, text.size()));
    return part;
}

bool isNumber(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), isDigit) &&
           (text.size() == 1 || text[0] != '0');
}

bool isNumericOid(std::string_view text)
{
    if (text.find('.') == std::string_view::npos || text.ends_with('.')) {
        return false;
    }
    while (!text.empty()) {
        if (!isNumber(cutTo(text, '.'))) {
            return false;
        }
    }
    return true;
}

bool isOid(std::string_view text) { return isDescr(text) || isNumericOid(text); }

bool isOption(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), isKeyCharacter);
}

bool isAttribute(std::string_view text)
{
    if (text.ends_with(';') || !isOid(cutTo(text, ';'))) {
        return false;
    }
    while (!text.empty()) {
        if (!isOption(cutTo(text, ';'))) {
            return false;
        }
    }
    return true;
}

bool isValue(std::string_view text)
{
    using namespace std::literals;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if ("\0()*"sv.find(text[i]) != std::string_view::npos) {
            return false;
        }
        if (text[i] != '\\') {
            continue;
        }
        if (text.size() < i + 3 || !isHexDigit(text[i + 1]) || !isHexDigit(text[i + 2])) {
            return false;
        }
        i += 2;
    }
    return true;
}

/// Of an equality, a presence or substrings, what follows "=". Two asterisks in a row are within the RFC's
/// letter, but nobody means or takes an empty part.
bool isPattern(std::string_view text)
{
    if (text.find("**") != std::string_view::npos) {
        return false;
    }
    while (!text.empty()) {
        if (!isValue(cutTo(text, '*'))) {
            return false;
        }
    }
    return true;
}

constexpr std::size_t kDnSize = 3;

/// In any case; and so there is no rule of that name.
bool beginsWithDn(std::string_view text)
{
    const bool isDn =
        text.size() >= kDnSize && text[0] == ':' && (text[1] | 0x20) == 'd' && (text[2] | 0x20) == 'n';
    return isDn && (text.size() == kDnSize || text[kDnSize] == ':');
}

/// `attribute[:dn][:rule]` or `[:dn]:rule`, what comes before ":=".
bool isExtensible(std::string_view text)
{
    const std::string_view attribute = text.substr(0, text.find(':'));
    std::string_view rest = text.substr(attribute.size());
    if (!attribute.empty() && !isAttribute(attribute)) {
        return false;
    }
    if (beginsWithDn(rest)) {
        rest.remove_prefix(kDnSize);
    }
    if (rest.empty()) {
        return !attribute.empty();
    }
    return rest[0] == ':' && isOid(rest.substr(1)) && !beginsWithDn(rest);
}

class Reader
{
public:
    explicit Reader(std::string_view text)
        : m_rest(text)
    {}

    bool readsFilter(int depth = 0)
    {
        // Nobody writes a filter that is nested deeper, and libldap may have a limit of its own.
        constexpr int kMostLevels = 50;
        return depth < kMostLevels && takes('(') && readsComponent(depth) && takes(')');
    }

    bool isAtEnd() const { return m_rest.empty(); }

private:
    bool takes(char c)
    {
        if (!m_rest.starts_with(c)) {
            return false;
        }
        m_rest.remove_prefix(1);
        return true;
    }

    bool readsComponent(int depth)
    {
        if (takes('&') || takes('|')) {
            return readsList(depth);
        }
        if (takes('!')) {
            return readsFilter(depth + 1);
        }
        const std::string_view item = m_rest.substr(0, m_rest.find_first_of("()"));
        m_rest.remove_prefix(item.size());
        return isFilterItem(item);
    }

    bool readsList(int depth)
    {
        if (!m_rest.starts_with('(')) {
            return false;
        }
        while (m_rest.starts_with('(')) {
            if (!readsFilter(depth + 1)) {
                return false;
            }
        }
        return true;
    }

    std::string_view m_rest;
};

} // namespace

bool isFilterItem(std::string_view text)
{
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0) {
        return false;
    }
    const std::string_view name = text.substr(0, equals);
    const std::string_view value = text.substr(equals + 1);
    switch (name.back()) {
    case '~':
    case '<':
    case '>':
        return isAttribute(name.substr(0, name.size() - 1)) && isValue(value);
    case ':':
        return isExtensible(name.substr(0, name.size() - 1)) && isValue(value);
    default:
        return isAttribute(name) && isPattern(value);
    }
}

bool isFilter(std::string_view text)
{
    Reader reader(text);
    return reader.readsFilter() && reader.isAtEnd();
}

} // namespace tavo::fuzz
