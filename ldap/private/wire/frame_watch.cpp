#include "ldap/private/wire/frame_watch.h"

#include <ldap.h>

#include <algorithm>
#include <climits>
#include <new>
#include <optional>

namespace tavo::ldap {

namespace {

constexpr unsigned char kMessageTag = 0x30;
constexpr unsigned char kIntegerTag = 0x02;
constexpr unsigned char kLongTag = 0x1f;
constexpr unsigned char kLongForm = 0x80;
/// How many bytes the length of a message has at most; the client library takes no more.
constexpr std::size_t kLongestLength = 4;
/// Where the operation begins at the latest in any message that makes sense.
constexpr std::size_t kLongestStart = 16;
/// No answer that the library asks for is longer, and no notice.
constexpr std::size_t kLongestSuspect = std::size_t{64} * 1024;
/// That can be under way at a time; no session asks for so much.
constexpr std::size_t kMostAnswers = 4096;

/// Takes a tag off the bytes, as the client library would. Only those of one byte are told apart.
std::optional<unsigned char> takeTag(std::string_view& bytes)
{
    if (bytes.empty()) {
        return std::nullopt;
    }
    const auto tag = static_cast<unsigned char>(bytes.front());
    bytes.remove_prefix(1);
    if ((tag & kLongTag) != kLongTag) {
        return tag;
    }
    for (std::size_t size = 1; size < sizeof(ber_tag_t) && !bytes.empty(); ++size) {
        const bool isLast = (static_cast<unsigned char>(bytes.front()) & kLongForm) == 0;
        bytes.remove_prefix(1);
        if (isLast) {
            return kLongTag;
        }
    }
    return std::nullopt;
}

/// Takes a length off the bytes, as the client library would.
std::optional<std::size_t> takeLength(std::string_view& bytes)
{
    if (bytes.empty()) {
        return std::nullopt;
    }
    const auto first = static_cast<unsigned char>(bytes.front());
    bytes.remove_prefix(1);
    if ((first & kLongForm) == 0) {
        return first;
    }
    const std::size_t size = first & ~kLongForm;
    if (size == 0 || size > sizeof(ber_len_t) || size > bytes.size()) {
        return std::nullopt;
    }
    std::size_t length = 0;
    for (const char byte : bytes.substr(0, size)) {
        length = length << CHAR_BIT | static_cast<unsigned char>(byte);
    }
    bytes.remove_prefix(size);
    return length;
}

struct Element
{
    unsigned char tag;
    std::string_view content;
};

/// Takes the next element (X.690) off the bytes, as the client library would.
std::optional<Element> takeElement(std::string_view& bytes)
{
    const auto tag = takeTag(bytes);
    const auto length = tag ? takeLength(bytes) : std::nullopt;
    if (!length || *length > bytes.size()) {
        return std::nullopt;
    }
    const Element element{*tag, bytes.substr(0, *length)};
    bytes.remove_prefix(*length);
    return element;
}

struct Operation
{
    std::uint32_t request;
    unsigned char tag;
};

/// The operation, once its tag is there, behind a message id that has the usual tag.
std::optional<Operation> operationIn(std::string_view content)
{
    const auto id = takeElement(content);
    if (!id || id->tag != kIntegerTag || content.empty()) {
        return std::nullopt;
    }
    std::uint32_t request = 0;
    for (const char byte : id->content) {
        request = request << CHAR_BIT | static_cast<unsigned char>(byte);
    }
    return Operation{request, static_cast<unsigned char>(content.front())};
}

/// Whether more messages follow that answer the same request.
bool isPartOfAnswer(unsigned char operation)
{
    return operation == LDAP_RES_SEARCH_ENTRY || operation == LDAP_RES_SEARCH_REFERENCE ||
           operation == LDAP_RES_INTERMEDIATE;
}

/// Whether the client library may abort on the message.
///
/// Where it looks for the name depends on which of the elements before it can decode. It goes from one element
/// to the next, to the end of the message and not of the operation. So a name may be any of them. No element of
/// another kind has that tag.
bool isFatal(std::string_view content)
{
    if (!takeElement(content)) {
        return false;
    }
    std::string_view operation = content;
    const auto whole = takeElement(content);
    if (!whole || whole->tag != LDAP_RES_EXTENDED) {
        return false;
    }
    takeTag(operation);
    takeLength(operation);
    while (const auto element = takeElement(operation)) {
        const bool isName = element->tag == LDAP_TAG_EXOP_RES_OID;
        if (isName && (element->content.empty() || element->content.front() == '\0')) {
            return true;
        }
    }
    return false;
}

} // namespace

bool FrameWatch::admits(std::string_view bytes) noexcept
try {
    while (!bytes.empty() && m_next != Next::nothing && m_verdict == Verdict::good) {
        if (m_next == Next::rest) {
            bytes.remove_prefix(takeRest(bytes));
        } else {
            takeByte(static_cast<unsigned char>(bytes.front()));
            bytes.remove_prefix(1);
        }
        if (m_content.size() > kLongestSuspect) {
            m_verdict = Verdict::fatal;
        }
        endMessage();
    }
    return m_verdict == Verdict::good;
} catch (const std::bad_alloc&) {
    m_verdict = Verdict::fatal;
    return false;
}

void FrameWatch::reset() noexcept { *this = FrameWatch(m_limits); }

void FrameWatch::takeByte(unsigned char byte)
{
    switch (m_next) {
    case Next::tag:
        m_next = byte == kMessageTag ? Next::length : Next::nothing;
        return;
    case Next::length:
    case Next::longLength:
        takeLength(byte);
        return;
    default:
        takeStart(byte);
    }
}

void FrameWatch::takeLength(unsigned char byte)
{
    if (m_next == Next::length) {
        const bool isLong = (byte & kLongForm) != 0;
        m_bytesLeft = isLong ? byte & ~kLongForm : 0;
        m_contentLeft = isLong ? 0 : byte;
        if (isLong && (m_bytesLeft == 0 || m_bytesLeft > kLongestLength)) {
            m_next = Next::nothing;
            return;
        }
    } else {
        m_contentLeft = m_contentLeft << CHAR_BIT | byte;
        --m_bytesLeft;
    }
    m_next = Next::longLength;
    if (m_bytesLeft == 0) {
        // The client library takes no empty message.
        m_next = m_contentLeft == 0 ? Next::nothing : Next::start;
        m_isSuspect = true;
        m_size = m_contentLeft;
        if (m_size > m_limits.message) {
            m_verdict = Verdict::messageTooLong;
        } else if (m_size > m_limits.answer) {
            m_verdict = Verdict::answerTooLong;
        }
    }
}

void FrameWatch::takeStart(unsigned char byte)
{
    m_content.push_back(static_cast<char>(byte));
    --m_contentLeft;
    if (const auto operation = operationIn(m_content)) {
        m_isSuspect = operation->tag == LDAP_RES_EXTENDED;
        m_next = Next::rest;
        countAnswer(operation->request, operation->tag);
    } else if (m_content.size() == kLongestStart || m_contentLeft == 0) {
        m_next = Next::rest;
        refuseIfCounted();
    }
}

std::size_t FrameWatch::takeRest(std::string_view bytes)
{
    const std::size_t size = std::min(bytes.size(), m_contentLeft);
    if (m_isSuspect) {
        m_content.append(bytes.substr(0, size));
    }
    m_contentLeft -= size;
    return size;
}

/// The client library takes an id with any tag, and the message would be part of an answer that isn't counted. No
/// server sends one.
void FrameWatch::refuseIfCounted()
{
    if (m_limits.answer != SizeLimits::kNone) {
        m_verdict = Verdict::fatal;
    }
}

void FrameWatch::countAnswer(std::uint32_t request, unsigned char operation)
{
    if (m_limits.answer == SizeLimits::kNone) {
        return;
    }
    std::size_t& size = m_answers[request];
    size += m_size;
    if (size > m_limits.answer || m_answers.size() > kMostAnswers) {
        m_verdict = Verdict::answerTooLong;
    }
    if (!isPartOfAnswer(operation)) {
        m_answers.erase(request);
    }
}

void FrameWatch::endMessage()
{
    const bool isInContent = m_next == Next::start || m_next == Next::rest;
    if (!isInContent || m_contentLeft != 0) {
        return;
    }
    if (m_isSuspect && isFatal(m_content)) {
        m_verdict = Verdict::fatal;
    }
    m_content.clear();
    m_next = Next::tag;
}

} // namespace tavo::ldap
