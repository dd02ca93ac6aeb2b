#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <string_view>

namespace tavo::ldap {

/// How much a server may send, in bytes.
struct SizeLimits
{
    static constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

    std::size_t message = kNone;
    /// All messages that answer one request.
    std::size_t answer = kNone;
};

/// Follows the messages of a server as their bytes come in, above TLS, and finds those that would end the
/// process in the client library: extended responses (RFC 4511, section 4.12) with an empty name, on which it
/// aborts. A notice has such a response (section 4.4), and so have the answers to StartTLS and who-am-I. Also
/// finds messages and answers that are longer than they may be, before they are read.
///
/// Not thread-safe.
class FrameWatch
{
public:
    explicit FrameWatch(SizeLimits limits = {})
        : m_limits(limits)
    {}

    enum class Verdict
    {
        good,
        /// It would end the process, or there is no memory to find out.
        fatal,
        messageTooLong,
        answerTooLong,
    };

    /// \param bytes what comes next
    /// \return whether the client library may have them; once it may not, the connection is over
    bool admits(std::string_view bytes) noexcept;

    /// About the messages so far.
    Verdict verdict() const noexcept { return m_verdict; }

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
    void refuseIfCounted();
    void countAnswer(std::uint32_t request, unsigned char operation);
    void endMessage();

    Next m_next = Next::tag;
    /// Of the length.
    std::size_t m_bytesLeft = 0;
    /// Of the message.
    std::size_t m_contentLeft = 0;
    /// Whether the message may be an extended response. Its content is then kept.
    bool m_isSuspect = true;
    std::string m_content;

    SizeLimits m_limits;
    /// Of the message.
    std::size_t m_size = 0;
    /// The sizes of the answers that have begun, by the numbers of their requests.
    std::map<std::uint32_t, std::size_t> m_answers;
    Verdict m_verdict = Verdict::good;
};

} // namespace tavo::ldap
