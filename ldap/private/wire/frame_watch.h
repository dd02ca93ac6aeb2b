#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tavo::ldap {

/// Follows the messages of a server as their bytes come in, above TLS, and finds those that would end the
/// process in the client library: extended responses (RFC 4511, section 4.12) with an empty name, on which it
/// aborts. A notice has such a response (section 4.4), and so have the answers to StartTLS and who-am-I.
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
        /// Of the content, up to the tag of the operation.
        start,
        rest,
        /// What comes is no message; the client library closes the connection.
        nothing
    };

    void takeByte(unsigned char byte);
    void takeLength(unsigned char byte);
    void takeStart(unsigned char byte);
    std::size_t takeRest(std::string_view bytes);
    bool endMessage();

    Next m_next = Next::tag;
    /// Of the length.
    std::size_t m_bytesLeft = 0;
    /// Of the message.
    std::size_t m_contentLeft = 0;
    /// Whether the message may be an extended response. Its content is then kept.
    bool m_isSuspect = true;
    std::string m_content;
};

} // namespace tavo::ldap
