#include "support/scripted_server.h"

#include "support/event_loop.h"

#include <gtest/gtest.h>

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>

namespace tavo::test {

namespace {

constexpr unsigned kOctetString = 0x04;
constexpr unsigned kEnumerated = 0x0a;
constexpr unsigned kSequence = 0x30;
constexpr unsigned kSet = 0x31;
constexpr unsigned kReferrals = 0xa3;
constexpr std::int64_t kUnwillingToPerform = 53;

Bytes octets(const std::vector<Bytes>& values)
{
    Bytes encoded;
    for (const auto& value : values)
        encoded += tlv(kOctetString, value);
    return encoded;
}

Answer kindAskedFor(const Request& request)
{
    if (request.is<BindRequest>())
        return Answer::bindResponse;
    if (request.is<SearchRequest>())
        return Answer::searchDone;
    return Answer::extendedResponse;
}

/// Every chunk that `steps` send in answer to `request`, as one run of bytes.
Bytes joined(const Steps& steps, const Request& request)
{
    Bytes all;
    for (const auto& step : steps.list()) {
        const auto* send = std::get_if<Step::Send>(&step.what);
        if (!send)
            throw std::logic_error("only messages and raw bytes can be joined, cut or split");
        for (const auto& chunk : send->chunks(request))
            all += chunk;
    }
    return all;
}

/// Sends what `cut` makes of the joined bytes of `steps`.
Step recut(const Steps& steps, std::function<std::vector<Bytes>(Bytes)> cut)
{
    return {Step::Send{
        [steps, cut = std::move(cut)](const Request& request) { return cut(joined(steps, request)); }}};
}

std::vector<Bytes> segments(const Bytes& bytes, std::size_t count)
{
    std::vector<Bytes> cut;
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t begin = bytes.size() * i / count;
        const std::size_t end = bytes.size() * (i + 1) / count;
        if (end > begin)
            cut.push_back(bytes.substr(begin, end - begin));
    }
    return cut;
}

std::string list(const std::vector<Control>& controls)
{
    std::string text;
    for (const auto& control : controls)
        text += (text.empty() ? "" : ", ") + describe(control);
    return controls.empty() ? "no controls" : text;
}

} // namespace

Bytes Entry::operation(const Request&) const
{
    Bytes attributes;
    for (const auto& [name, values] : m_attributes)
        attributes += tlv(kSequence, tlv(kOctetString, name) + tlv(kSet, octets(values)));
    return tlv(
        static_cast<unsigned>(Answer::searchEntry), tlv(kOctetString, m_dn) + tlv(kSequence, attributes));
}

Bytes Reference::operation(const Request&) const
{
    return tlv(static_cast<unsigned>(Answer::searchReference), octets(m_urls));
}

ResultMessage& ResultMessage::page(Bytes cookie, std::int64_t estimate)
{
    return control(
        {.oid = kPagedResultsOid, .critical = false, .value = pagedResultsValue(estimate, cookie)});
}

Bytes ResultMessage::operation(const Request& request) const
{
    constexpr unsigned kResponseName = 0x8a;
    constexpr unsigned kResponseValue = 0x8b;
    Bytes content =
        berNumber(m_code, kEnumerated) + tlv(kOctetString, m_matched) + tlv(kOctetString, m_diagnostic);
    if (!m_referrals.empty())
        content += tlv(kReferrals, octets(m_referrals));
    if (m_responseName)
        content += tlv(kResponseName, *m_responseName);
    if (m_responseValue)
        content += tlv(kResponseValue, *m_responseValue);
    return tlv(static_cast<unsigned>(m_kind.value_or(kindAskedFor(request))), content);
}

Bytes RawOperation::operation(const Request&) const { return tlv(m_tag, m_content); }

RawOperation intermediate(Bytes oid, Bytes value)
{
    return rawOperation(Answer::intermediateResponse, tlv(0x80, oid) + tlv(0x81, value));
}

ResultMessage noticeOfDisconnection(std::int64_t code, Bytes diagnostic)
{
    return ResultMessage(code, Answer::extendedResponse)
        .messageId(0)
        .diagnostic(std::move(diagnostic))
        .responseName(kNoticeOfDisconnectionOid);
}

Steps raw(Bytes bytes)
{
    return Step{Step::Send{[bytes = std::move(bytes)](const Request&) { return std::vector{bytes}; }}};
}

Steps together(const Steps& steps)
{
    return recut(steps, [](Bytes bytes) { return std::vector{std::move(bytes)}; });
}

Steps inSegments(std::size_t count, const Steps& steps)
{
    return recut(steps, [count](const Bytes& bytes) { return segments(bytes, count); });
}

Steps splitAt(std::size_t offset, Gate gate, const Steps& steps)
{
    const Steps tail =
        recut(steps, [offset](const Bytes& bytes) { return std::vector{bytes.substr(offset)}; });
    return {truncated(offset, steps), waitFor(std::move(gate)), tail};
}

Steps truncated(std::size_t length, const Steps& steps)
{
    return recut(steps, [length](const Bytes& bytes) { return std::vector{bytes.substr(0, length)}; });
}

Steps waitFor(Gate gate) { return Step{Step::WaitFor{std::move(gate)}}; }

Steps opens(Gate gate) { return Step{Step::Open{std::move(gate)}}; }

Steps closeConnection() { return Step{Step::Ending::close}; }

Steps halfClose() { return Step{Step::Ending::halfClose}; }

Steps resetConnection() { return Step{Step::Ending::reset}; }

Steps awaitRawInput(std::size_t bytes) { return Step{Step::AwaitRawInput{bytes}}; }

Steps stopReading() { return Step{Step::StopReading()}; }

struct Expectation::Data
{
    struct Demand
    {
        std::string what;
        std::function<bool(const Request&)> holds;
    };

    std::string kind;
    std::function<bool(const Request&)> isKind;
    std::optional<std::size_t> connection;
    std::vector<Demand> demands;
    Script script = [](const Request&) { return Steps(); };

    bool concerns(const Request& request) const { return !connection || *connection == request.connection; }
    std::string text() const;
    /// Empty when the request is the one expected.
    std::string objection(const Request& request) const;
};

std::string Expectation::Data::text() const
{
    std::string text = kind;
    for (std::size_t i = 0; i < demands.size(); ++i)
        text += (i == 0 ? " with " : ", ") + demands[i].what;
    return connection ? text + " on connection " + std::to_string(*connection) : text;
}

std::string Expectation::Data::objection(const Request& request) const
{
    if (!isKind(request))
        return "expected " + text() + "; got " + describe(request);
    const auto broken = std::find_if(
        demands.begin(), demands.end(), [&](const Demand& demand) { return !demand.holds(request); });
    if (broken == demands.end())
        return {};
    return "expected " + text() + "; not so is " + broken->what + " in " + describe(request);
}

/// What the test's threads and the server's thread share.
struct Expectation::Shared
{
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::deque<std::unique_ptr<Data>> expectations;
    Script otherwise;
    Steps greeting;
    std::size_t accepted = 0;
    std::size_t open = 0;
    std::set<std::size_t> closedByClient;
    std::vector<Request> requests;
    std::vector<std::string> problems;

    template <class Condition>
    std::unique_lock<std::mutex> waitUntil(const char* what, Condition holds) const;
    void addProblem(std::string problem);
    /// Records the request and says how to answer it.
    Script take(const Request& request);

private:
    Script scriptFor(const Request& request);
    Script refusal(std::string problem);
};

template <class Condition>
std::unique_lock<std::mutex> Expectation::Shared::waitUntil(const char* what, Condition holds) const
{
    std::unique_lock lock(mutex);
    if (changed.wait_for(lock, kDeadline, holds))
        return lock;
    std::string text = std::string("waited in vain for ") + what +
                       "; connections so far: " + std::to_string(accepted) + ", open " + std::to_string(open);
    for (const auto& request : requests)
        text += "\n  " + describe(request);
    for (const auto& expectation : expectations)
        text += "\n  still expected: " + expectation->text();
    throw std::runtime_error(text);
}

void Expectation::Shared::addProblem(std::string problem)
{
    const std::lock_guard lock(mutex);
    problems.push_back(std::move(problem));
    changed.notify_all();
}

Expectation::Script Expectation::Shared::take(const Request& request)
{
    const std::lock_guard lock(mutex);
    requests.push_back(request);
    changed.notify_all();
    return scriptFor(request);
}

Expectation::Script Expectation::Shared::scriptFor(const Request& request)
{
    const auto expected = std::find_if(expectations.begin(), expectations.end(),
        [&](const auto& candidate) { return candidate->concerns(request); });
    const bool mayPass = request.is<AbandonRequest>() || request.is<UnbindRequest>();
    if (expected != expectations.end() && ((*expected)->isKind(request) || !mayPass)) {
        const std::string objection = (*expected)->objection(request);
        const Script script = (*expected)->script;
        if ((*expected)->isKind(request))
            expectations.erase(expected);
        return objection.empty() ? script : refusal(objection);
    }
    if (mayPass)
        return [](const Request&) { return Steps(); };
    if (otherwise)
        return otherwise;
    return refusal("nothing more expected; got " + describe(request));
}

Expectation::Script Expectation::Shared::refusal(std::string problem)
{
    problems.push_back(problem);
    return [problem = std::move(problem)](
               const Request&) -> Steps { return result(kUnwillingToPerform).diagnostic(problem); };
}

Expectation::Expectation(
    std::shared_ptr<Shared> server, std::string kind, std::function<bool(const Request&)> isKind)
    : m_server(std::move(server))
    , m_data(std::make_unique<Data>())
{
    m_data->kind = std::move(kind);
    m_data->isKind = std::move(isKind);
}

Expectation::~Expectation()
{
    const std::lock_guard lock(m_server->mutex);
    m_server->expectations.push_back(std::move(m_data));
}

Expectation& Expectation::onConnection(std::size_t index)
{
    m_data->connection = index;
    return *this;
}

Expectation& Expectation::matching(std::string what, std::function<bool(const Request&)> holds)
{
    m_data->demands.push_back({std::move(what), std::move(holds)});
    return *this;
}

Expectation& Expectation::base(Bytes dn)
{
    return matching("base \"" + printable(dn) + "\"",
        [dn](const Request& request) { return request.as<SearchRequest>().base == dn; });
}

Expectation& Expectation::scope(std::int64_t scope)
{
    return matching("scope " + std::to_string(scope),
        [scope](const Request& request) { return request.as<SearchRequest>().scope == scope; });
}

Expectation& Expectation::deref(std::int64_t deref)
{
    return matching("deref " + std::to_string(deref),
        [deref](const Request& request) { return request.as<SearchRequest>().deref == deref; });
}

Expectation& Expectation::sizeLimit(std::int64_t entries)
{
    return matching("size limit " + std::to_string(entries),
        [entries](const Request& request) { return request.as<SearchRequest>().sizeLimit == entries; });
}

Expectation& Expectation::timeLimit(std::int64_t seconds)
{
    return matching("time limit " + std::to_string(seconds),
        [seconds](const Request& request) { return request.as<SearchRequest>().timeLimit == seconds; });
}

Expectation& Expectation::typesOnly(bool typesOnly)
{
    return matching(typesOnly ? "types only" : "types and values",
        [typesOnly](const Request& request) { return request.as<SearchRequest>().typesOnly == typesOnly; });
}

Expectation& Expectation::filter(Bytes text)
{
    return matching("filter " + printable(text),
        [text](const Request& request) { return request.as<SearchRequest>().filter == text; });
}

Expectation& Expectation::attributes(std::vector<Bytes> names)
{
    std::string what = "attributes";
    for (const auto& name : names)
        what += " " + printable(name);
    return matching(names.empty() ? "no attributes named" : what,
        [names](const Request& request) { return request.as<SearchRequest>().attributes == names; });
}

Expectation& Expectation::controls(std::vector<Control> controls)
{
    const std::string what = list(controls);
    return matching(what, [controls](const Request& request) { return request.controls == controls; });
}

Expectation& Expectation::paged(std::int64_t size, Bytes cookie, bool critical)
{
    return controls(
        {{.oid = kPagedResultsOid, .critical = critical, .value = pagedResultsValue(size, cookie)}});
}

void Expectation::answerWith(Script script) { m_data->script = std::move(script); }

/// The server's thread: its listener and its connections. Everything but the constructor, the destructor and
/// `stopListening` runs on that thread.
class ScriptedServer::Engine
{
public:
    explicit Engine(std::shared_ptr<Expectation::Shared> shared);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    std::uint16_t port() const { return m_port; }
    void stopListening();

private:
    /// What waits for its turn on a connection's socket.
    using Output = std::variant<Bytes, Step::Ending, Gate>;

    /// The steps that answer one request, and how far they are.
    struct Conversation
    {
        Request request;
        std::deque<Step> steps;
    };

    struct Connection
    {
        std::size_t index = 0;
        FileDescriptor socket;
        EventLoop::Watch watch = 0;
        std::uint32_t events = EPOLLIN;
        Bytes input;
        std::deque<Output> output;
        std::size_t sentOfFront = 0;
        std::optional<std::size_t> rawInput;
        std::vector<std::shared_ptr<Conversation>> awaitingRawInput;
        bool stoppedReading = false;
        bool ended = false;
    };
    using ConnectionPtr = std::shared_ptr<Connection>;

    void accept();
    void greet(const ConnectionPtr& connection);
    void onEvents(const ConnectionPtr& connection, std::uint32_t events);
    void read(const ConnectionPtr& connection);
    void consume(const ConnectionPtr& connection);
    void handleMessages(const ConnectionPtr& connection);
    void run(const ConnectionPtr& connection, const std::shared_ptr<Conversation>& conversation);
    bool doStep(
        const ConnectionPtr& connection, const std::shared_ptr<Conversation>& conversation, const Step& step);
    void fail(const ConnectionPtr& connection, const std::exception& error);
    void flush(const ConnectionPtr& connection);
    bool flushFront(const ConnectionPtr& connection);
    bool send(const ConnectionPtr& connection, const Bytes& chunk);
    void finish(const ConnectionPtr& connection, Step::Ending ending);
    void end(const ConnectionPtr& connection, bool byClient);
    void updateEvents(const ConnectionPtr& connection);

    std::shared_ptr<Expectation::Shared> m_shared;
    FileDescriptor m_listener;
    std::uint16_t m_port;
    EventLoop::Watch m_listening = 0;
    std::map<std::size_t, ConnectionPtr> m_connections;
    EventLoop m_loop;
};

ScriptedServer::Engine::Engine(std::shared_ptr<Expectation::Shared> shared)
    : m_shared(std::move(shared))
    , m_listener(listenOnLoopback())
    , m_port(localPort(m_listener))
{
    m_loop.post([this] {
        m_listening = m_loop.watch(m_listener.get(), EPOLLIN, [this](std::uint32_t) { accept(); });
    });
}

ScriptedServer::Engine::~Engine()
{
    m_loop.stop();
    // A gate that the test keeps may still hold a connection: closed here, not when the last holder goes.
    for (const auto& [index, connection] : m_connections)
        connection->socket.close();
}

void ScriptedServer::Engine::stopListening()
{
    const Gate stopped;
    m_loop.post([this, stopped] {
        m_loop.unwatch(m_listening);
        m_listener.close();
        stopped.open();
    });
    stopped.wait("the listener to close");
}

void ScriptedServer::Engine::accept()
{
    while (FileDescriptor socket = acceptConnection(m_listener)) {
        auto connection = std::make_shared<Connection>();
        connection->socket = std::move(socket);
        {
            const std::lock_guard lock(m_shared->mutex);
            connection->index = m_shared->accepted++;
            ++m_shared->open;
            m_shared->changed.notify_all();
        }
        m_connections[connection->index] = connection;
        connection->watch = m_loop.watch(connection->socket.get(), connection->events,
            [this, connection](std::uint32_t events) { onEvents(connection, events); });
        greet(connection);
    }
}

void ScriptedServer::Engine::greet(const ConnectionPtr& connection)
{
    auto conversation = std::make_shared<Conversation>();
    conversation->request.connection = connection->index;
    {
        const std::lock_guard lock(m_shared->mutex);
        const auto& steps = m_shared->greeting.list();
        conversation->steps.assign(steps.begin(), steps.end());
    }
    run(connection, conversation);
}

void ScriptedServer::Engine::onEvents(const ConnectionPtr& connection, std::uint32_t events)
{
    if ((events & EPOLLOUT) != 0)
        flush(connection);
    if (connection->ended)
        return;
    if ((events & EPOLLIN) != 0)
        read(connection);
    else if ((events & (EPOLLERR | EPOLLHUP)) != 0)
        end(connection, true);
}

void ScriptedServer::Engine::read(const ConnectionPtr& connection)
{
    std::array<char, 65536> buffer;
    const ssize_t count = ::recv(connection->socket.get(), buffer.data(), buffer.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count <= 0) {
        end(connection, true);
        return;
    }
    connection->input.append(buffer.data(), static_cast<std::size_t>(count));
    consume(connection);
}

void ScriptedServer::Engine::consume(const ConnectionPtr& connection)
{
    if (!connection->rawInput) {
        handleMessages(connection);
        return;
    }
    *connection->rawInput += connection->input.size();
    connection->input.clear();
    const auto waiting = std::exchange(connection->awaitingRawInput, {});
    for (const auto& conversation : waiting)
        run(connection, conversation);
}

void ScriptedServer::Engine::handleMessages(const ConnectionPtr& connection)
try {
    while (!connection->ended && !connection->rawInput && !connection->stoppedReading) {
        const std::size_t length = firstElementLength(connection->input);
        if (length == 0)
            return;
        auto conversation = std::make_shared<Conversation>();
        conversation->request = decodeRequest(std::string_view(connection->input).substr(0, length));
        conversation->request.connection = connection->index;
        connection->input.erase(0, length);
        const auto steps = m_shared->take(conversation->request)(conversation->request);
        conversation->steps.assign(steps.list().begin(), steps.list().end());
        run(connection, conversation);
    }
    if (connection->rawInput)
        consume(connection);
} catch (const std::exception& error) {
    fail(connection, error);
}

void ScriptedServer::Engine::run(
    const ConnectionPtr& connection, const std::shared_ptr<Conversation>& conversation)
try {
    while (!connection->ended && !conversation->steps.empty()) {
        if (!doStep(connection, conversation, conversation->steps.front()))
            return;
        conversation->steps.pop_front();
    }
} catch (const std::exception& error) {
    fail(connection, error);
}

void ScriptedServer::Engine::fail(const ConnectionPtr& connection, const std::exception& error)
{
    m_shared->addProblem("connection " + std::to_string(connection->index) + " failed: " + error.what());
    end(connection, false);
}

/// Returns false when the conversation has to wait; the same step is then done again.
bool ScriptedServer::Engine::doStep(
    const ConnectionPtr& connection, const std::shared_ptr<Conversation>& conversation, const Step& step)
{
    if (const auto* send = std::get_if<Step::Send>(&step.what)) {
        for (auto& chunk : send->chunks(conversation->request))
            connection->output.emplace_back(std::move(chunk));
        flush(connection);
        return true;
    }
    if (const auto* wait = std::get_if<Step::WaitFor>(&step.what)) {
        if (wait->gate.isOpen())
            return true;
        wait->gate.whenOpen([this, connection, conversation, mailbox = m_loop.mailbox()] {
            mailbox->post([this, connection, conversation] { run(connection, conversation); });
        });
        return false;
    }
    if (const auto* await = std::get_if<Step::AwaitRawInput>(&step.what)) {
        if (!connection->rawInput)
            connection->rawInput = std::exchange(connection->input, {}).size();
        if (*connection->rawInput >= await->bytes)
            return true;
        connection->awaitingRawInput.push_back(conversation);
        return false;
    }
    if (std::holds_alternative<Step::StopReading>(step.what)) {
        connection->stoppedReading = true;
        updateEvents(connection);
        return true;
    }
    if (const auto* open = std::get_if<Step::Open>(&step.what))
        connection->output.emplace_back(open->gate);
    else
        connection->output.emplace_back(std::get<Step::Ending>(step.what));
    flush(connection);
    return true;
}

void ScriptedServer::Engine::flush(const ConnectionPtr& connection)
{
    while (!connection->ended && !connection->output.empty() && flushFront(connection))
        connection->output.pop_front();
    if (!connection->ended)
        updateEvents(connection);
}

/// Returns false when the socket takes no more for now, or the connection is gone.
bool ScriptedServer::Engine::flushFront(const ConnectionPtr& connection)
{
    const Output& front = connection->output.front();
    if (const auto* chunk = std::get_if<Bytes>(&front))
        return send(connection, *chunk);
    if (const auto* gate = std::get_if<Gate>(&front)) {
        gate->open();
        return true;
    }
    finish(connection, std::get<Step::Ending>(front));
    return !connection->ended;
}

bool ScriptedServer::Engine::send(const ConnectionPtr& connection, const Bytes& chunk)
{
    std::size_t& done = connection->sentOfFront;
    while (done < chunk.size()) {
        const ssize_t sent =
            ::send(connection->socket.get(), chunk.data() + done, chunk.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0 && errno == EAGAIN)
            return false;
        if (sent < 0) {
            end(connection, true);
            return false;
        }
        done += static_cast<std::size_t>(sent);
    }
    done = 0;
    return true;
}

void ScriptedServer::Engine::finish(const ConnectionPtr& connection, Step::Ending ending)
{
    if (ending == Step::Ending::halfClose) {
        ::shutdown(connection->socket.get(), SHUT_WR);
        return;
    }
    if (ending == Step::Ending::reset)
        resetOnClose(connection->socket);
    end(connection, false);
}

void ScriptedServer::Engine::end(const ConnectionPtr& connection, bool byClient)
{
    if (std::exchange(connection->ended, true))
        return;
    m_loop.unwatch(connection->watch);
    connection->socket.close();
    m_connections.erase(connection->index);
    const std::lock_guard lock(m_shared->mutex);
    --m_shared->open;
    if (byClient)
        m_shared->closedByClient.insert(connection->index);
    m_shared->changed.notify_all();
}

void ScriptedServer::Engine::updateEvents(const ConnectionPtr& connection)
{
    const std::uint32_t events = (connection->stoppedReading ? 0U : std::uint32_t{EPOLLIN}) |
                                 (connection->output.empty() ? 0U : std::uint32_t{EPOLLOUT});
    if (events == connection->events)
        return;
    connection->events = events;
    m_loop.change(connection->watch, events);
}

ScriptedServer::ScriptedServer()
    : m_shared(std::make_shared<Expectation::Shared>())
    , m_engine(std::make_unique<Engine>(m_shared))
{}

ScriptedServer::~ScriptedServer()
{
    m_engine.reset();
    for (const auto& problem : takeProblems())
        ADD_FAILURE() << "scripted server: " << problem;
}

std::uint16_t ScriptedServer::port() const { return m_engine->port(); }

std::string ScriptedServer::url(const std::string& scheme) const
{
    return scheme + "://127.0.0.1:" + std::to_string(port());
}

Expectation ScriptedServer::expectBind()
{
    return {m_shared, "a bind", [](const Request& request) { return request.is<BindRequest>(); }};
}

Expectation ScriptedServer::expectBind(Bytes dn, Bytes password)
{
    const std::string kind =
        "a simple bind of \"" + printable(dn) + "\" with \"" + printable(password) + "\"";
    return {m_shared, kind, [dn, password](const Request& request) {
                const auto* bind = std::get_if<BindRequest>(&request.operation);
                return bind && bind->version == 3 && bind->dn == dn && bind->password == password &&
                       !bind->saslMechanism;
            }};
}

Expectation ScriptedServer::expectSearch()
{
    return {m_shared, "a search", [](const Request& request) { return request.is<SearchRequest>(); }};
}

Expectation ScriptedServer::expectExtended(Bytes oid)
{
    return {m_shared, "an extended request " + printable(oid), [oid](const Request& request) {
                const auto* extended = std::get_if<ExtendedRequest>(&request.operation);
                return extended && extended->oid == oid;
            }};
}

Expectation ScriptedServer::expectAbandon()
{
    return {m_shared, "an abandon", [](const Request& request) { return request.is<AbandonRequest>(); }};
}

Expectation ScriptedServer::expectUnbind()
{
    return {m_shared, "an unbind", [](const Request& request) { return request.is<UnbindRequest>(); }};
}

void ScriptedServer::otherwise(Expectation::Script script)
{
    const std::lock_guard lock(m_shared->mutex);
    m_shared->otherwise = std::move(script);
}

void ScriptedServer::greet(const Steps& steps)
{
    const std::lock_guard lock(m_shared->mutex);
    m_shared->greeting = steps;
}

void ScriptedServer::stopListening() { m_engine->stopListening(); }

void ScriptedServer::waitForConnections(std::size_t count) const
{
    m_shared->waitUntil("a connection", [&] { return m_shared->accepted >= count; });
}

std::vector<Request> ScriptedServer::waitForRequests(std::size_t count) const
{
    const auto lock = m_shared->waitUntil("a request", [&] { return m_shared->requests.size() >= count; });
    return m_shared->requests;
}

void ScriptedServer::waitForClose(std::size_t connection) const
{
    m_shared->waitUntil(
        "the client to close", [&] { return m_shared->closedByClient.count(connection) != 0; });
}

void ScriptedServer::waitUntilMet() const
{
    m_shared->waitUntil("the expected requests", [&] { return m_shared->expectations.empty(); });
}

std::size_t ScriptedServer::connections() const
{
    const std::lock_guard lock(m_shared->mutex);
    return m_shared->accepted;
}

std::size_t ScriptedServer::openConnections() const
{
    const std::lock_guard lock(m_shared->mutex);
    return m_shared->open;
}

std::vector<Request> ScriptedServer::requests() const
{
    const std::lock_guard lock(m_shared->mutex);
    return m_shared->requests;
}

std::vector<std::string> ScriptedServer::takeProblems()
{
    const std::lock_guard lock(m_shared->mutex);
    auto problems = std::exchange(m_shared->problems, {});
    for (const auto& expectation : std::exchange(m_shared->expectations, {}))
        problems.push_back("never came: " + expectation->text());
    return problems;
}

} // namespace tavo::test
