#include "support/ldap_messages.h"

#include <array>
#include <cstdio>
#include <stdexcept>

namespace tavo::test {

namespace {

constexpr unsigned kOctetString = 0x04;
constexpr unsigned kSequence = 0x30;
constexpr unsigned kControls = 0xa0;
/// Set in the first byte of a length: the number of bytes that hold it.
constexpr std::size_t kLongForm = 0x80;
constexpr std::size_t kPrintedLength = 120;

[[noreturn]] void malformed(const std::string& what)
{
    throw std::runtime_error("malformed message: " + what);
}

/// The tag and the length with which an element begins.
struct Header
{
    std::size_t size;
    std::size_t length;
};

/// Empty when some of it is missing.
std::optional<Header> readHeader(std::string_view bytes)
{
    if (bytes.size() < 2)
        return std::nullopt;
    const auto first = static_cast<unsigned char>(bytes[1]);
    if (first < kLongForm)
        return Header{2, first};
    const std::size_t lengthBytes = first - kLongForm;
    if (lengthBytes == 0 || lengthBytes > sizeof(std::uint32_t))
        malformed("a length of " + std::to_string(lengthBytes) + " bytes");
    if (bytes.size() < 2 + lengthBytes)
        return std::nullopt;
    std::size_t length = 0;
    for (const char c : bytes.substr(2, lengthBytes))
        length = length * 256 + static_cast<unsigned char>(c);
    return Header{2 + lengthBytes, length};
}

const Tlv& expectTag(const Tlv& element, unsigned tag, const char* what)
{
    if (element.tag != tag)
        malformed(std::string(what) + " is tagged " + std::to_string(element.tag));
    return element;
}

Bytes hexEscaped(unsigned char byte)
{
    std::array<char, 4> text{};
    std::snprintf(text.data(), text.size(), "\\%02x", byte);
    return text.data();
}

Bytes filterValue(std::string_view value)
{
    Bytes text;
    for (const char c : value) {
        const bool plain = c >= ' ' && c < 0x7f && Bytes("*()\\").find(c) == Bytes::npos;
        text += plain ? Bytes(1, c) : hexEscaped(static_cast<unsigned char>(c));
    }
    return text;
}

Bytes filterText(const Tlv& filter);

Bytes listOfFilters(const char* sign, const Tlv& list)
{
    Bytes text = sign;
    for (const auto& filter : elements(list.content))
        text += filterText(filter);
    return text;
}

Bytes assertion(const Tlv& filter, const char* sign)
{
    const auto parts = elements(filter.content);
    return parts.at(0).content + sign + filterValue(parts.at(1).content);
}

Bytes substrings(const Tlv& filter)
{
    constexpr unsigned kInitial = 0x80;
    constexpr unsigned kFinal = 0x82;
    const auto parts = elements(filter.content);
    Bytes text = parts.at(0).content + "=";
    unsigned last = 0;
    for (const auto& part : elements(parts.at(1).content)) {
        text += (part.tag == kInitial ? "" : "*") + filterValue(part.content);
        last = part.tag;
    }
    return last == kFinal ? text : text + "*";
}

Bytes extensibleMatch(const Tlv& filter)
{
    Bytes rule;
    Bytes type;
    Bytes value;
    Bytes dn;
    for (const auto& part : elements(filter.content)) {
        switch (part.tag) {
        case 0x81:
            rule = ":" + part.content;
            break;
        case 0x82:
            type = part.content;
            break;
        case 0x83:
            value = filterValue(part.content);
            break;
        case 0x84:
            dn = numberIn(part.content) != 0 ? ":dn" : "";
            break;
        default:
            malformed("extensible match");
        }
    }
    return type + dn + rule + ":=" + value;
}

Bytes filterText(const Tlv& filter)
{
    switch (filter.tag) {
    case 0xa0:
        return "(" + listOfFilters("&", filter) + ")";
    case 0xa1:
        return "(" + listOfFilters("|", filter) + ")";
    case 0xa2:
        return "(" + listOfFilters("!", filter) + ")";
    case 0xa3:
        return "(" + assertion(filter, "=") + ")";
    case 0xa4:
        return "(" + substrings(filter) + ")";
    case 0xa5:
        return "(" + assertion(filter, ">=") + ")";
    case 0xa6:
        return "(" + assertion(filter, "<=") + ")";
    case 0x87:
        return "(" + filter.content + "=*)";
    case 0xa8:
        return "(" + assertion(filter, "~=") + ")";
    case 0xa9:
        return "(" + extensibleMatch(filter) + ")";
    default:
        malformed("filter tagged " + std::to_string(filter.tag));
    }
}

BindRequest decodeBind(const Tlv& operation)
{
    constexpr unsigned kSimple = 0x80;
    const auto parts = elements(operation.content);
    BindRequest bind{.version = numberIn(parts.at(0).content),
        .dn = parts.at(1).content,
        .password = {},
        .saslMechanism = {}};
    if (parts.at(2).tag == kSimple)
        bind.password = parts.at(2).content;
    else
        bind.saslMechanism = elements(parts.at(2).content).at(0).content;
    return bind;
}

SearchRequest decodeSearch(const Tlv& operation)
{
    const auto parts = elements(operation.content);
    SearchRequest search{.base = parts.at(0).content,
        .scope = numberIn(parts.at(1).content),
        .deref = numberIn(parts.at(2).content),
        .sizeLimit = numberIn(parts.at(3).content),
        .timeLimit = numberIn(parts.at(4).content),
        .typesOnly = numberIn(parts.at(5).content) != 0,
        .filter = filterText(parts.at(6)),
        .attributes = {}};
    for (const auto& attribute : elements(parts.at(7).content))
        search.attributes.push_back(attribute.content);
    return search;
}

ExtendedRequest decodeExtended(const Tlv& operation)
{
    const auto parts = elements(operation.content);
    ExtendedRequest extended{.oid = parts.at(0).content, .value = {}};
    if (parts.size() > 1)
        extended.value = parts[1].content;
    return extended;
}

Request::Operation decodeOperation(const Tlv& operation)
{
    switch (operation.tag) {
    case 0x60:
        return decodeBind(operation);
    case 0x42:
        return UnbindRequest();
    case 0x50:
        return AbandonRequest{numberIn(operation.content)};
    case 0x63:
        return decodeSearch(operation);
    case 0x77:
        return decodeExtended(operation);
    default:
        return OtherRequest{operation};
    }
}

Control decodeControl(const Tlv& element)
{
    constexpr unsigned kBoolean = 0x01;
    const auto parts = elements(expectTag(element, kSequence, "control").content);
    Control control{.oid = parts.at(0).content, .critical = false, .value = {}};
    for (std::size_t i = 1; i < parts.size(); ++i) {
        if (parts[i].tag == kBoolean)
            control.critical = numberIn(parts[i].content) != 0;
        else
            control.value = expectTag(parts[i], kOctetString, "control value").content;
    }
    return control;
}

Bytes encodeControl(const Control& control)
{
    Bytes content = tlv(kOctetString, control.oid);
    if (control.critical)
        content += tlv(0x01, "\xff");
    if (control.value)
        content += tlv(kOctetString, *control.value);
    return tlv(kSequence, content);
}

std::string describeAttributes(const std::vector<Bytes>& attributes)
{
    std::string text;
    for (const auto& attribute : attributes)
        text += (text.empty() ? "" : ",") + printable(attribute);
    return "[" + text + "]";
}

struct OperationPrinter
{
    std::string operator()(const BindRequest& bind) const
    {
        const auto how = bind.saslMechanism ? " sasl=" + printable(*bind.saslMechanism)
                                            : " password=\"" + printable(bind.password) + "\"";
        return "bind v" + std::to_string(bind.version) + " dn=\"" + printable(bind.dn) + "\"" + how;
    }
    std::string operator()(const SearchRequest& search) const
    {
        return "search base=\"" + printable(search.base) + "\" scope=" + std::to_string(search.scope) +
               " deref=" + std::to_string(search.deref) + " sizeLimit=" + std::to_string(search.sizeLimit) +
               " timeLimit=" + std::to_string(search.timeLimit) + (search.typesOnly ? " typesOnly" : "") +
               " filter=" + printable(search.filter) + " attributes=" + describeAttributes(search.attributes);
    }
    std::string operator()(const ExtendedRequest& extended) const
    {
        return "extended oid=" + printable(extended.oid) +
               (extended.value ? " value=\"" + printable(*extended.value) + "\"" : "");
    }
    std::string operator()(const AbandonRequest& abandon) const
    {
        return "abandon of message " + std::to_string(abandon.messageId);
    }
    std::string operator()(const UnbindRequest&) const { return "unbind"; }
    std::string operator()(const OtherRequest& other) const
    {
        return "operation tagged " + std::to_string(other.operation.tag) + " \"" +
               printable(other.operation.content) + "\"";
    }
};

} // namespace

Bytes tlv(unsigned tag, std::string_view content)
{
    Bytes encoded(1, static_cast<char>(tag));
    if (content.size() < kLongForm) {
        encoded += static_cast<char>(content.size());
        return encoded.append(content);
    }
    Bytes length;
    for (std::size_t rest = content.size(); rest != 0; rest /= 256)
        length.insert(length.begin(), static_cast<char>(rest % 256));
    encoded += static_cast<char>(kLongForm + length.size());
    return encoded.append(length).append(content);
}

Bytes berNumber(std::int64_t value, unsigned tag)
{
    Bytes content;
    do {
        content.insert(content.begin(), static_cast<char>(value & 0xff));
        value >>= 8;
    } while ((value != 0 && value != -1) || ((value < 0) != ((content[0] & 0x80) != 0)));
    return tlv(tag, content);
}

std::vector<Tlv> elements(std::string_view content)
{
    std::vector<Tlv> found;
    while (!content.empty()) {
        const auto header = readHeader(content);
        if (!header || content.size() - header->size < header->length)
            malformed("no element at \"" + printable(content) + "\"");
        found.push_back(
            {static_cast<unsigned char>(content[0]), Bytes(content.substr(header->size, header->length))});
        content.remove_prefix(header->size + header->length);
    }
    return found;
}

std::int64_t numberIn(std::string_view content)
{
    if (content.empty() || content.size() > sizeof(std::int64_t))
        malformed("a number of " + std::to_string(content.size()) + " bytes");
    std::int64_t value = static_cast<signed char>(content[0]);
    for (const char c : content.substr(1))
        value = value * 256 + static_cast<unsigned char>(c);
    return value;
}

std::size_t firstElementLength(std::string_view buffer)
{
    if (!buffer.empty() && static_cast<unsigned char>(buffer[0]) != kSequence)
        malformed("it begins with \"" + printable(buffer) + "\"");
    const auto header = readHeader(buffer);
    if (!header || buffer.size() - header->size < header->length)
        return 0;
    return header->size + header->length;
}

Bytes pagedResultsValue(std::int64_t size, std::string_view cookie)
{
    return tlv(kSequence, berNumber(size) + tlv(kOctetString, cookie));
}

const Control* Request::control(std::string_view oid) const
{
    for (const auto& candidate : controls) {
        if (candidate.oid == oid)
            return &candidate;
    }
    return nullptr;
}

std::optional<PageRequest> pageRequested(const Request& request)
{
    const Control* control = request.control(kPagedResultsOid);
    if (!control)
        return std::nullopt;
    const auto outer = elements(control->value.value_or(""));
    const auto parts = elements(outer.at(0).content);
    return PageRequest{numberIn(parts.at(0).content), parts.at(1).content, control->critical};
}

Request decodeRequest(std::string_view message)
try {
    const auto outer = elements(message);
    const auto parts = elements(expectTag(outer.at(0), kSequence, "the message").content);
    Request request;
    request.messageId = numberIn(parts.at(0).content);
    request.operation = decodeOperation(parts.at(1));
    if (parts.size() > 2) {
        for (const auto& control : elements(expectTag(parts[2], kControls, "the list of controls").content))
            request.controls.push_back(decodeControl(control));
    }
    return request;
} catch (const std::out_of_range&) {
    malformed("a part is missing in \"" + printable(message) + "\"");
}

Bytes encodeMessage(std::int64_t messageId, std::string_view operation, const std::vector<Control>& controls)
{
    Bytes content = berNumber(messageId).append(operation);
    if (!controls.empty()) {
        Bytes list;
        for (const auto& control : controls)
            list += encodeControl(control);
        content += tlv(kControls, list);
    }
    return tlv(kSequence, content);
}

std::string printable(std::string_view bytes)
{
    std::string text;
    for (const char c : bytes.substr(0, kPrintedLength))
        text += c >= ' ' && c < 0x7f && c != '\\' ? Bytes(1, c) : hexEscaped(static_cast<unsigned char>(c));
    return bytes.size() > kPrintedLength ? text + "... (" + std::to_string(bytes.size()) + " bytes)" : text;
}

std::string describe(const Control& control)
{
    return "control " + printable(control.oid) + (control.critical ? " critical" : " not critical") +
           (control.value ? " value=\"" + printable(*control.value) + "\"" : " without value");
}

std::string describe(const Request& request)
{
    std::string text = "connection " + std::to_string(request.connection) + ", message " +
                       std::to_string(request.messageId) + ": " +
                       std::visit(OperationPrinter(), request.operation);
    for (const auto& control : request.controls)
        text += ", " + describe(control);
    return text;
}

} // namespace tavo::test
