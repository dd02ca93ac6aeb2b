#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tavo::ldap {

/// Follows the messages of a server as their bytes come in, above TLS, and finds those that would end the
/// process in the client library.
///
/// One is known: an unsolicited notification (RFC 4511, section 4.4) with an empty name, on which it aborts.
/// Each that it may not be able to decode counts as one. It reads other messages on its own.
///
/// Not thread-safe.
class FrameWatch
{
public:
    /// \param bytes what comes next
    /// \return whether the client library may have them; once it may not, the connection is over
    bool admits(std::string_view bytes) noexcept;

    /// A new connection begins.
    void reset() noexcept;

private:
    enum class Next
    {
        tag,
        length,
        longLength,
        idTag,
        idLength,
        id,
        rest,
        /// What comes is no message; the client library closes the connection.
        nothing
    };

    void takeByte(unsigned char byte);
    void takeLength(unsigned char byte);
    void takeIdByte(unsigned char byte);
    std::size_t takeRest(std::string_view bytes);
    bool endMessage();

    Next m_next = Next::tag;
    /// Of the length or the message id, whichever comes in.
    std::size_t m_bytesLeft = 0;
    /// Of the message.
    std::size_t m_contentLeft = 0;
    /// Whether the message may be a notification. Its content is then kept.
    bool m_isSuspect = true;
    std::string m_content;
};

} // namespace tavo::ldap
