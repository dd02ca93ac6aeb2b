#pragma once

#include "support/gate.h"
#include "support/ldap_messages.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace tavo::test {

/// What a scripted server does next with a connection; made by the functions below and by `answer(...)`.
///
/// A step is one of: chunks of bytes, each written to the socket by a call of its own; the end of the
/// connection; waiting; telling the test. Steps of one answer run in order, those of two answers on one
/// connection independently, so that an answer may overtake another that waits at a gate.
struct Step
{
    struct Send
    {
        std::function<std::vector<Bytes>(const Request&)> chunks;
    };
    enum class Ending
    {
        close,
        halfClose,
        reset
    };
    struct WaitFor
    {
        Gate gate;
    };
    struct Open
    {
        Gate gate;
    };
    struct AwaitRawInput
    {
        std::size_t bytes;
    };
    struct StopReading
    {};

    std::variant<Send, Ending, WaitFor, Open, AwaitRawInput, StopReading> what;
};

/// A sequence of steps. Messages convert to it, and so does a vector of them.
class Steps
{
public:
    Steps() = default;
    Steps(Step step) { m_steps.push_back(std::move(step)); }
    Steps(std::initializer_list<Steps> parts)
    {
        for (const auto& part : parts)
            append(part);
    }
    template <class Message>
    requires std::is_convertible_v<Message, Steps> Steps(const std::vector<Message>& messages)
    {
        for (const auto& message : messages)
            append(message);
    }

    void append(const Steps& more)
    {
        m_steps.insert(m_steps.end(), more.m_steps.begin(), more.m_steps.end());
    }
    const std::vector<Step>& list() const { return m_steps; }

private:
    std::vector<Step> m_steps;
};

/// The parts common to all messages of a server. By default a message has the request's message id and no
/// controls.
template <class Derived>
class MessageTo
{
public:
    /// Adds a control; a control may be added twice.
    Derived& control(Control control)
    {
        m_controls.push_back(std::move(control));
        return self();
    }

    /// Uses another message id than the request's.
    Derived& messageId(std::int64_t id)
    {
        m_messageId = id;
        return self();
    }

    /// The whole message as it answers `request`.
    Bytes encode(const Request& request) const
    {
        const auto& derived = static_cast<const Derived&>(*this);
        return encodeMessage(m_messageId.value_or(request.messageId), derived.operation(request), m_controls);
    }

    operator Steps() const
    {
        return Step{Step::Send{[message = static_cast<const Derived&>(*this)](
                                   const Request& request) { return std::vector{message.encode(request)}; }}};
    }

private:
    Derived& self() { return static_cast<Derived&>(*this); }

    std::vector<Control> m_controls;
    std::optional<std::int64_t> m_messageId;
};

/// A search entry.
class Entry : public MessageTo<Entry>
{
public:
    explicit Entry(Bytes dn)
        : m_dn(std::move(dn))
    {}

    /// Adds an attribute with any number of values of any bytes; the same attribute may come twice.
    Entry& attr(Bytes name, std::vector<Bytes> values)
    {
        m_attributes.emplace_back(std::move(name), std::move(values));
        return *this;
    }
    // A template, so that a list in braces is never taken for two ends of one text.
    template <class Value>
    requires std::is_convertible_v<const Value&, Bytes> Entry& attr(Bytes name, const Value& value)
    {
        return attr(std::move(name), std::vector<Bytes>{value});
    }

    Bytes operation(const Request& request) const;

private:
    Bytes m_dn;
    std::vector<std::pair<Bytes, std::vector<Bytes>>> m_attributes;
};

/// A search continuation reference.
class Reference : public MessageTo<Reference>
{
public:
    explicit Reference(std::vector<Bytes> urls)
        : m_urls(std::move(urls))
    {}

    Bytes operation(const Request& request) const;

private:
    std::vector<Bytes> m_urls;
};

/// A result: of a bind, a search or an extended request.
class ResultMessage : public MessageTo<ResultMessage>
{
public:
    /// Without a kind, the result is of the kind that the request asks for.
    explicit ResultMessage(std::int64_t code, std::optional<Answer> kind = std::nullopt)
        : m_code(code)
        , m_kind(kind)
    {}

    ResultMessage& matched(Bytes dn)
    {
        m_matched = std::move(dn);
        return *this;
    }
    ResultMessage& diagnostic(Bytes text)
    {
        m_diagnostic = std::move(text);
        return *this;
    }
    ResultMessage& referrals(std::vector<Bytes> urls)
    {
        m_referrals = std::move(urls);
        return *this;
    }

    /// Adds a paged-results control with this cookie and estimated total.
    ResultMessage& page(Bytes cookie, std::int64_t estimate = 0);

    /// The name and the value that only an extended response has.
    ResultMessage& responseName(Bytes oid)
    {
        m_responseName = std::move(oid);
        return *this;
    }
    ResultMessage& responseValue(Bytes value)
    {
        m_responseValue = std::move(value);
        return *this;
    }

    Bytes operation(const Request& request) const;

private:
    std::int64_t m_code;
    std::optional<Answer> m_kind;
    Bytes m_matched;
    Bytes m_diagnostic;
    std::vector<Bytes> m_referrals;
    std::optional<Bytes> m_responseName;
    std::optional<Bytes> m_responseValue;
};

/// A message with any tag and contents as its protocol operation, for what no proper server sends.
class RawOperation : public MessageTo<RawOperation>
{
public:
    RawOperation(unsigned tag, Bytes content)
        : m_tag(tag)
        , m_content(std::move(content))
    {}

    Bytes operation(const Request& request) const;

private:
    unsigned m_tag;
    Bytes m_content;
};

inline Entry entry(Bytes dn) { return Entry(std::move(dn)); }
inline Reference reference(std::vector<Bytes> urls) { return Reference(std::move(urls)); }
/// A result of the request's own kind.
inline ResultMessage result(std::int64_t code) { return ResultMessage(code); }
inline ResultMessage success() { return ResultMessage(0); }
/// The end of a search.
inline ResultMessage done(std::int64_t code = 0) { return ResultMessage(code, Answer::searchDone); }
inline RawOperation rawOperation(Answer tag, Bytes content)
{
    return RawOperation(static_cast<unsigned>(tag), std::move(content));
}
RawOperation intermediate(Bytes oid, Bytes value);
/// The unsolicited notice with which a server ends a connection.
ResultMessage noticeOfDisconnection(std::int64_t code, Bytes diagnostic);

/// Bytes as they are.
Steps raw(Bytes bytes);
/// All of these in one write: `together({entry("cn=a"), done()})`. This and the next three take messages and
/// raw bytes only.
Steps together(const Steps& steps);
/// All of these, split into `count` writes of about the same length.
Steps inSegments(std::size_t count, const Steps& steps);
/// All of these, the byte at `offset` and those after it only when `gate` is open.
Steps splitAt(std::size_t offset, Gate gate, const Steps& steps);
/// The first `length` bytes of these.
Steps truncated(std::size_t length, const Steps& steps);
/// The following steps of this answer wait until the test opens the gate.
Steps waitFor(Gate gate);
/// Opens the gate when everything before it in this answer has been passed to the kernel.
Steps opens(Gate gate);
/// Ends the connection when everything before it is sent. Requests that have not been read turn it into a
/// reset.
Steps closeConnection();
/// Closes only the server's sending direction.
Steps halfClose();
Steps resetConnection();
/// From here on the client's bytes are not LDAP (a TLS handshake): counts them, and continues when that many
/// have come.
Steps awaitRawInput(std::size_t bytes = 1);
/// Reads nothing more from this connection.
Steps stopReading();

/// What the script expects of one request, and what it answers; see `ScriptedServer`.
///
/// It takes effect at the end of the statement that writes it. Without `answer` the server stays silent.
class Expectation
{
public:
    using Script = std::function<Steps(const Request&)>;

    Expectation(Expectation&&) = delete;
    ~Expectation();

    /// Only requests on this connection (0 is the first one) count for this expectation.
    Expectation& onConnection(std::size_t index);

    Expectation& base(Bytes dn);
    Expectation& scope(std::int64_t scope);
    Expectation& deref(std::int64_t deref);
    Expectation& sizeLimit(std::int64_t entries);
    Expectation& timeLimit(std::int64_t seconds);
    Expectation& typesOnly(bool typesOnly);
    Expectation& filter(Bytes text);
    Expectation& attributes(std::vector<Bytes> names);

    /// Exactly these controls, in this order.
    Expectation& controls(std::vector<Control> controls);
    Expectation& noControls() { return controls({}); }
    /// The only control is a paged-results one with this content.
    Expectation& paged(std::int64_t size, Bytes cookie, bool critical = true);

    /// Any other condition: `what` names it in the message when `holds` returns false.
    Expectation& matching(std::string what, std::function<bool(const Request&)> holds);

    /// Answers with these steps, one after the other.
    template <class... Each>
    void answer(const Each&... each)
    {
        Steps steps;
        (steps.append(each), ...);
        answerWith([steps](const Request&) { return steps; });
    }

    /// Answers with the steps that `script` returns for the request; it is called on the server's thread.
    void answerWith(Script script);

private:
    friend class ScriptedServer;
    struct Data;
    struct Shared;

    Expectation(std::shared_ptr<Shared> server, std::string kind, std::function<bool(const Request&)> isKind);

    std::shared_ptr<Shared> m_server;
    std::unique_ptr<Data> m_data;
};

/// An LDAP server on 127.0.0.1 that follows the test's script, byte by byte if need be, on a thread of its
/// own.
///
///     ScriptedServer server;
///     server.expectBind("cn=admin", "secret").answer(success());
///     server.expectSearch().base("dc=x").paged(2, "").answer(
///         entry("cn=a,dc=x").attr("cn", "a"), entry("cn=b,dc=x").attr("cn", "b"), done().page("cookie"));
///     server.expectSearch().paged(2, "cookie").answer(done().page(""));
///
/// Requests must come in the order of the expectations; those pinned to a connection, in the order of the
/// expectations for that connection. When none is left, the handler given to `otherwise` answers. An
/// unexpected abandon or unbind is ignored. Any other unexpected request is a problem: it is answered with 53
/// (unwillingToPerform) and fails the test when the server is destroyed, as does an unmet expectation.
///
/// Every member may be called from any thread. The waits throw `std::runtime_error`, listing what has come so
/// far, when `kDeadline` passes.
class ScriptedServer
{
public:
    ScriptedServer();
    /// Closes every connection and reports, as failures of the running test, the problems that the test has
    /// not taken.
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    std::uint16_t port() const;
    /// `ldap://127.0.0.1:PORT`, or with another scheme.
    std::string url(const std::string& scheme = "ldap") const;

    Expectation expectBind();
    /// A simple bind of version 3 with exactly these.
    Expectation expectBind(Bytes dn, Bytes password);
    Expectation expectSearch();
    Expectation expectExtended(Bytes oid);
    Expectation expectStartTls() { return expectExtended(kStartTlsOid); }
    Expectation expectWhoAmI() { return expectExtended(kWhoAmIOid); }
    Expectation expectAbandon();
    Expectation expectUnbind();

    /// Answers every request for which no expectation is left, on the server's thread.
    void otherwise(Expectation::Script script);

    /// Sent on every connection accepted from now on, before the client has sent anything.
    void greet(const Steps& steps);

    /// Refuses further connections, those in the listener's queue included.
    void stopListening();

    /// Blocks until `count` connections have been accepted since the start.
    void waitForConnections(std::size_t count) const;
    /// Blocks until `count` requests have come since the start; returns all of them.
    std::vector<Request> waitForRequests(std::size_t count) const;
    /// Blocks until the client has closed or reset this connection.
    void waitForClose(std::size_t connection) const;
    /// Blocks until every expectation so far is met.
    void waitUntilMet() const;

    std::size_t connections() const;
    /// The number of connections that neither side has ended.
    std::size_t openConnections() const;
    std::vector<Request> requests() const;

    /// Takes the problems so far, including expectations that are still unmet, for the test to examine.
    std::vector<std::string> takeProblems();

private:
    class Engine;

    std::shared_ptr<Expectation::Shared> m_shared;
    std::unique_ptr<Engine> m_engine;
};

} // namespace tavo::test
