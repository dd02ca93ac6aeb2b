// Distinguished names of any shape, and names made of any value.

#include "invariant.h"
#include "process_setup.h"
#include <ldap/utils.h>

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace tavo::fuzz {

namespace {

/// The first item; nothing when the library refuses the name.
std::optional<QString> firstItem(const QString& dn)
{
    try {
        return ldap::dnFirstItem(dn);
    } catch (const ldap::BaseError& error) {
        const bool isBlank = dn.left(dn.indexOf(QChar::Null)).trimmed().isEmpty();
        require(error.ldapCode != 0 || isBlank, "only an empty name fails with code 0");
        return std::nullopt;
    }
}

/// The text up to its first NUL, where C text for the client library ends.
QString withoutNul(const QString& text) { return text.left(text.indexOf(QChar::Null)); }

void checkParents(const QString& dn)
{
    const auto alone = firstItem(dn);
    require(firstItem(dn) == alone, "the same name gives the same item");
    if (!alone) {
        return;
    }
    require(
        firstItem(withoutNul(dn) + QLatin1String(",dc=x")) == alone, "the parents of an entry don't name it");
    require(alone->toStdU16String().find(u'\0') == std::u16string::npos, "an item is C text");
}

/// Every byte escaped (RFC 4514, section 2.4), so that any value may be told from the name around it.
QString escaped(const QByteArray& value)
{
    QString text;
    for (const char byte : value) {
        text += QLatin1Char('\\') + QString::fromLatin1(QByteArray(1, byte).toHex());
    }
    return text;
}

QByteArray unescaped(const QString& text)
{
    constexpr qsizetype kEscapeLength = 3;
    const QByteArray utf8 = text.toUtf8();
    QByteArray value;
    for (qsizetype i = 0; i < utf8.size(); ++i) {
        const QByteArray digits = utf8.mid(i + 1, kEscapeLength - 1);
        if (utf8[i] == '\\' && QByteArray::fromHex(digits).size() == 1) {
            value += QByteArray::fromHex(digits);
            i += kEscapeLength - 1;
        } else {
            value += utf8[i];
        }
    }
    return value;
}

void checkValue(const QByteArray& value)
{
    const auto item = firstItem(QLatin1String("cn=") + escaped(value) + QLatin1String(",ou=teams,dc=x"));
    require(item.has_value(), "an escaped value makes a name");
    require(unescaped(*item) == value, "an item is the value, but for its escapes");
}

} // namespace

} // namespace tavo::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    tavo::fuzz::setUpProcess();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    tavo::fuzz::checkParents(text);
    tavo::fuzz::checkValue(text.toUtf8());
    return 0;
}
