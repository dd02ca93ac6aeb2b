#include "ldap/private/wire/frame_watch.h"

#include <lber.h>
#include <ldap.h>

#include <algorithm>
#include <climits>
#include <new>
#include <optional>

namespace tavo::ldap {

namespace {

constexpr unsigned char kMessageTag = 0x30;
constexpr unsigned char kIntegerTag = 0x02;
constexpr unsigned char kLongForm = 0x80;
constexpr std::size_t kLongestId = 4;
/// No notification is longer.
constexpr std::size_t kLongestSuspect = 64 * 1024;

constexpr unsigned char kLongTag = 0x1f;

/// Takes the next element (X.690) off the bytes, as the client library would, but for tags of several bytes:
/// no message that makes sense has one.
/// \return its content
std::optional<std::string_view> takeElement(std::string_view& bytes, unsigned char& tag)
{
    if (bytes.size() < 2) {
        return std::nullopt;
    }
    tag = static_cast<unsigned char>(bytes[0]);
    std::size_t length = static_cast<unsigned char>(bytes[1]);
    bytes.remove_prefix(2);
    if ((tag & kLongTag) == kLongTag) {
        return std::nullopt;
    }
    if ((length & kLongForm) != 0) {
        const std::size_t size = length & ~std::size_t{kLongForm};
        if (size == 0 || size > sizeof(ber_len_t) || size > bytes.size()) {
            return std::nullopt;
        }
        length = 0;
        for (const char byte : bytes.substr(0, size)) {
            length = length << CHAR_BIT | static_cast<unsigned char>(byte);
        }
        bytes.remove_prefix(size);
    }
    if (length > bytes.size()) {
        return std::nullopt;
    }
    const std::string_view content = bytes.substr(0, length);
    bytes.remove_prefix(length);
    return content;
}

bool isZero(std::string_view number) { return number.find_first_not_of('\0') == std::string_view::npos; }

/// The name, where the client library looks for it: behind the result code and the two texts. It looks there
/// even if it couldn't decode them.
bool hasEmptyName(std::string_view notification)
{
    unsigned char tag = 0;
    for (int i = 0; i < 3; ++i) {
        if (!takeElement(notification, tag)) {
            return true;
        }
    }
    if (notification.empty()) {
        return false;
    }
    const auto name = takeElement(notification, tag);
    return !name || (tag == LDAP_TAG_EXOP_RES_OID && name->empty());
}

/// Whether the client library would abort on the message. What neither it nor this can read does no harm.
bool isFatal(std::string_view content)
{
    unsigned char tag = 0;
    const auto id = takeElement(content, tag);
    if (!id) {
        return (tag & kLongTag) == kLongTag;
    }
    if (!isZero(*id)) {
        return false;
    }
    const auto operation = takeElement(content, tag);
    return operation && tag == LDAP_RES_EXTENDED && hasEmptyName(*operation);
}

} // namespace

bool FrameWatch::admits(std::string_view bytes) noexcept
try {
    while (!bytes.empty()) {
        if (m_next == Next::nothing) {
            return true;
        }
        if (m_next == Next::rest) {
            bytes.remove_prefix(takeRest(bytes));
        } else {
            takeByte(static_cast<unsigned char>(bytes.front()));
            bytes.remove_prefix(1);
        }
        if (m_content.size() > kLongestSuspect || !endMessage()) {
            return false;
        }
    }
    return true;
} catch (const std::bad_alloc&) {
    return false;
}

void FrameWatch::reset() noexcept { *this = FrameWatch(); }

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
        takeIdByte(byte);
    }
}

void FrameWatch::takeLength(unsigned char byte)
{
    if (m_next == Next::length) {
        const bool isLong = (byte & kLongForm) != 0;
        m_bytesLeft = isLong ? byte & ~kLongForm : 0;
        m_contentLeft = isLong ? 0 : byte;
        if (isLong && (m_bytesLeft == 0 || m_bytesLeft > sizeof(ber_len_t))) {
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
        m_next = m_contentLeft == 0 ? Next::nothing : Next::idTag;
        m_isSuspect = true;
    }
}

void FrameWatch::takeIdByte(unsigned char byte)
{
    m_content.push_back(static_cast<char>(byte));
    --m_contentLeft;
    if (m_next == Next::idTag) {
        m_next = byte == kIntegerTag ? Next::idLength : Next::rest;
    } else if (m_next == Next::idLength) {
        m_bytesLeft = byte;
        m_next = byte != 0 && byte <= kLongestId ? Next::id : Next::rest;
    } else {
        --m_bytesLeft;
        m_isSuspect = byte == 0;
        if (!m_isSuspect || m_bytesLeft == 0) {
            m_next = Next::rest;
        }
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

/// \return false when the message is complete and would be the end of the process
bool FrameWatch::endMessage()
{
    const bool isInContent = m_next >= Next::idTag && m_next <= Next::rest;
    if (!isInContent || m_contentLeft != 0) {
        return true;
    }
    const bool isHarmless = !m_isSuspect || !isFatal(m_content);
    m_content.clear();
    m_next = Next::tag;
    return isHarmless;
}

} // namespace tavo::ldap
