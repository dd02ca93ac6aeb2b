#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tavo::test {

/// Bytes of any value, NUL included.
using Bytes = std::string;

inline constexpr const char* kPagedResultsOid = "1.2.840.113556.1.4.319";
inline constexpr const char* kStartTlsOid = "1.3.6.1.4.1.1466.20037";
inline constexpr const char* kWhoAmIOid = "1.3.6.1.4.1.4203.1.11.3";
inline constexpr const char* kNoticeOfDisconnectionOid = "1.3.6.1.4.1.1466.20036";

/// The tags of a server's protocol operations.
enum class Answer : unsigned
{
    bindResponse = 0x61,
    searchEntry = 0x64,
    searchDone = 0x65,
    searchReference = 0x73,
    extendedResponse = 0x78,
    intermediateResponse = 0x79
};

/// One BER element: its tag and its contents.
struct Tlv
{
    unsigned tag = 0;
    Bytes content;
};

// Hand-written rather than taken from liblber: the code under test uses liblber, which must not vouch for
// itself, and the call recorder should see only the library's own calls.

/// Encodes one element; the tag is one byte.
Bytes tlv(unsigned tag, std::string_view content);

/// Encodes a number under the tag of INTEGER (0x02) or another one.
Bytes berNumber(std::int64_t value, unsigned tag = 0x02);

/// The elements of which `content` is the concatenation. Throws `std::runtime_error` when it isn't one.
std::vector<Tlv> elements(std::string_view content);

/// The number in the contents of an INTEGER.
std::int64_t numberIn(std::string_view content);

/// The length of the first element in `buffer`; 0 when it is still incomplete. Throws `std::runtime_error`
/// when no element can begin like this.
std::size_t firstElementLength(std::string_view buffer);

/// The value of a control, or nothing when it has none, which differs from an empty value.
struct Control
{
    Bytes oid;
    bool critical = false;
    std::optional<Bytes> value;

    bool operator==(const Control&) const = default;
};

/// The value of a paged-results control, of a request (page size) or an answer (estimated total).
Bytes pagedResultsValue(std::int64_t size, std::string_view cookie);

struct BindRequest
{
    std::int64_t version = 0;
    Bytes dn;
    Bytes password;
    /// Set when the bind is not a simple one.
    std::optional<Bytes> saslMechanism;
};

struct SearchRequest
{
    Bytes base;
    std::int64_t scope = 0;
    std::int64_t deref = 0;
    std::int64_t sizeLimit = 0;
    /// In seconds.
    std::int64_t timeLimit = 0;
    bool typesOnly = false;
    /// In its text form, values escaped as `\xx` where they are not printable ASCII.
    Bytes filter;
    std::vector<Bytes> attributes;
};

struct ExtendedRequest
{
    Bytes oid;
    std::optional<Bytes> value;
};

struct AbandonRequest
{
    std::int64_t messageId = 0;
};

struct UnbindRequest
{};

/// An operation that the library under test has no reason to send.
struct OtherRequest
{
    Tlv operation;
};

/// A request as a server receives it.
struct Request
{
    using Operation = std::variant<BindRequest, SearchRequest, ExtendedRequest, AbandonRequest, UnbindRequest,
        OtherRequest>;

    /// The connection on which it came, counted from 0 in the order of acceptance.
    std::size_t connection = 0;
    std::int64_t messageId = 0;
    Operation operation = UnbindRequest();
    std::vector<Control> controls;

    /// The operation as `Kind`; throws `std::bad_variant_access` when it is of another kind.
    template <class Kind>
    const Kind& as() const
    {
        return std::get<Kind>(operation);
    }
    template <class Kind>
    bool is() const
    {
        return std::holds_alternative<Kind>(operation);
    }

    const Control* control(std::string_view oid) const;
};

/// The content of the paged-results control that a request carries.
struct PageRequest
{
    std::int64_t size = 0;
    Bytes cookie;
    bool critical = false;
};

/// Empty when the request carries no such control. Throws `std::runtime_error` when it can't be read.
std::optional<PageRequest> pageRequested(const Request& request);

/// Decodes one whole message. Throws `std::runtime_error` saying what is wrong with it.
Request decodeRequest(std::string_view message);

/// Encodes a message around an encoded protocol operation.
Bytes encodeMessage(std::int64_t messageId, std::string_view operation, const std::vector<Control>& controls);

/// A description on one line; other than printable ASCII is escaped, long values are cut.
std::string printable(std::string_view bytes);
std::string describe(const Control& control);
std::string describe(const Request& request);

} // namespace tavo::test
