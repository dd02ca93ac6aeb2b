// Any UTF-16 text and any bytes, written as JSON and read back by another implementation.

#include "invariant.h"
#include "parsed_json.h"
#include "process_setup.h"
#include <ldap/settings.h>
#include <ldap/user.h>
#include <tavo_reflect/json.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace tavo::fuzz {

namespace {

QString fromUtf16(const std::uint8_t* data, std::size_t size)
{
    std::u16string text(size / sizeof(char16_t), u'\0');
    std::memcpy(text.data(), data, text.size() * sizeof(char16_t));
    return QString::fromStdU16String(text);
}

void checkUser(const QString& text)
{
    const ldap::User user{text, text.mid(1), {}, QString(text).prepend(text)};
    const std::string json = user.toString();
    require(
        json.starts_with("{\"dn\":\"") && json.ends_with("\"}"), "members come in the order of the fields");
    const rapidjson::Document object = parsedObject(json);
    require(object.MemberCount() == 4, "a user has four members");
    require(holds(object, "dn", user.dn), "the DN survives");
    require(holds(object, "login", user.login), "the login survives");
    require(holds(object, "fullName", {}), "an empty name is an empty text");
    require(holds(object, "email", user.email), "the address survives");
}

void checkGroup(const QString& text)
{
    const ldap::Group group{{}, text, {text, {}, text.left(text.size() / 2)}};
    const rapidjson::Document object = parsedObject(group.toString());
    const auto members = object["members"].GetArray();
    require(members.Size() == 3 && isText(members[1], {}), "an empty member is a member");
    require(isText(members[0], text), "a member survives");
    require(isText(members[2], group.members[2]), "half a member survives");
}

void checkSettings(const QString& text)
{
    ldap::Settings settings;
    settings.adminDn = text;
    settings.loginAttribute = text;
    settings.searchPageSize = static_cast<int>(text.size()) - 2;
    const rapidjson::Document object = parsedObject(settings.toString());
    require(holds(object, "adminDn", text), "the account survives");
    require(holds(object, "loginAttribute", text), "a present option survives");
    require(!object.HasMember("memberAttribute"), "an absent option is left out");
    require(object["searchPageSize"].GetInt() == settings.searchPageSize, "a number survives");
    require(object["startTls"].IsFalse(), "a switch is a boolean");
}

/// Bytes that claim to be UTF-8.
void checkBytes(std::string_view bytes)
{
    reflect::json::Writer writer;
    writer.beginObject();
    writer.key("bytes");
    writer.text(bytes);
    writer.endObject();
    const QString expected = QString::fromUtf8(bytes.data(), static_cast<qsizetype>(bytes.size()));
    require(holds(parsedObject(writer.toString()), "bytes", expected), "bytes survive as text");
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
    const QString text = tavo::fuzz::fromUtf16(data, size);
    tavo::fuzz::checkUser(text);
    tavo::fuzz::checkGroup(text);
    tavo::fuzz::checkSettings(text);
    tavo::fuzz::checkBytes({reinterpret_cast<const char*>(data), size});
    return 0;
}
