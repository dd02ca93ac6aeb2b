#include "support/tcp_relay.h"

#include "support/event_loop.h"
#include "support/ldap_messages.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <variant>
#include <vector>

namespace tavo::test {

namespace {

constexpr std::size_t kBufferedAtMost = 1U << 20U;

/// What happens at a point of a connection.
struct Rule
{
    TcpRelay::Direction direction;
    TcpRelay::Point point;
    /// Held back until the gate opens, ended, or preceded by these bytes.
    std::variant<Gate, TcpRelay::Ending, Bytes> what;
    std::optional<std::size_t> connection;
    Gate reached;
};

/// Where the messages of a stream end, as far as it has come.
class MessageBoundaries
{
public:
    void feed(std::string_view bytes)
    {
        m_rest += bytes;
        for (std::size_t length = firstElementLength(m_rest); length != 0;
             length = firstElementLength(m_rest)) {
            m_ends.push_back(m_ends.back() + length);
            m_rest.erase(0, length);
        }
    }
    /// The offset behind so many messages, if that many have come.
    std::optional<std::size_t> behind(std::size_t messages) const
    {
        return messages < m_ends.size() ? std::optional(m_ends[messages]) : std::nullopt;
    }
    std::size_t behindLast() const { return m_ends.back(); }

private:
    Bytes m_rest;
    std::vector<std::size_t> m_ends{0};
};

/// One direction of a connection.
struct Pipe
{
    Bytes pending;
    std::size_t forwarded = 0;
    std::vector<Rule> rules;
    MessageBoundaries boundaries;
    bool countsMessages = false;
    bool sourceEnded = false;
    bool ended = false;
    bool dropsEverything = false;
    bool isHeld = false;
};

struct Side
{
    FileDescriptor socket;
    EventLoop::Watch watch = 0;
    std::uint32_t events = 0;
};

struct Link
{
    std::size_t index = 0;
    Side client;
    Side server;
    Pipe toServer;
    Pipe toClient;
    bool ended = false;
};

using LinkPtr = std::shared_ptr<Link>;

/// One direction with its two ends.
struct Way
{
    TcpRelay::Direction direction;
    Pipe& pipe;
    Side& source;
    Side& destination;
};

Way way(Link& link, TcpRelay::Direction direction)
{
    if (direction == TcpRelay::Direction::toServer)
        return {direction, link.toServer, link.client, link.server};
    return {direction, link.toClient, link.server, link.client};
}

/// The offset at which the rule applies, when that is known.
std::optional<std::size_t> offsetOf(const Rule& rule, const Pipe& pipe)
{
    return rule.point.inMessages ? pipe.boundaries.behind(rule.point.count) : rule.point.count;
}

/// The rule that applies right here, if there is one.
std::vector<Rule>::iterator ruleHere(Pipe& pipe)
{
    return std::find_if(pipe.rules.begin(), pipe.rules.end(),
        [&](const Rule& rule) { return offsetOf(rule, pipe) == pipe.forwarded; });
}

/// How much may be forwarded before another rule applies, or may turn out to.
std::size_t allowance(const Pipe& pipe)
{
    std::size_t limit = pipe.forwarded + pipe.pending.size();
    for (const auto& rule : pipe.rules) {
        const std::size_t offset = offsetOf(rule, pipe).value_or(pipe.boundaries.behindLast());
        limit = std::min(limit, std::max(offset, pipe.forwarded));
    }
    return limit - pipe.forwarded;
}

/// Reads what has come and nobody wants: closed with that unread, the connection would end in a reset.
void drain(const FileDescriptor& socket)
{
    std::array<char, 65536> buffer;
    while (::recv(socket.get(), buffer.data(), buffer.size(), 0) > 0) {
    }
}

FileDescriptor connectTo(const sockaddr* address, socklen_t length)
{
    FileDescriptor socket(::socket(address->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket)
        throwErrno("socket");
    if (::connect(socket.get(), address, length) != 0 && errno != EINPROGRESS)
        return {};
    return socket;
}

sockaddr_in internetAddress(std::uint16_t port, const std::string& host)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (::inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1)
        throw std::runtime_error("not an address: " + host);
    return address;
}

FileDescriptor connectTo(const sockaddr_in& address)
{
    auto socket = connectTo(reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (!socket)
        return socket;
    const int on = 1;
    ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return socket;
}

FileDescriptor connectTo(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error("too long for a Unix domain socket: " + path);
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return connectTo(reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

} // namespace

/// The relay's thread. What is below `private:` and has no lock runs on that thread alone.
class TcpRelay::Engine
{
public:
    using Target = std::variant<sockaddr_in, std::string>;

    explicit Engine(Target target);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    std::uint16_t port() const { return m_port; }
    void add(Rule rule);
    void passEverything();

    struct Counters
    {
        std::size_t accepted = 0;
        std::size_t open = 0;
        std::size_t toServer = 0;
        std::size_t toClient = 0;
        std::size_t forwarded(Direction direction) const
        {
            return direction == Direction::toServer ? toServer : toClient;
        }
    };
    Counters counters() const;
    template <class Condition>
    void waitUntil(const char* what, Condition holds) const;

private:
    void accept();
    void start(FileDescriptor client);
    void watch(const LinkPtr& link, Side& side);
    void onEvents(const LinkPtr& link, Side& side, std::uint32_t events);
    void hangUp(const LinkPtr& link, Side& side, const Pipe& in, const Pipe& out);
    void read(const LinkPtr& link, const Way& way);
    void pump(const LinkPtr& link, Direction direction);
    bool applyRule(const LinkPtr& link, const Way& way);
    bool forward(const LinkPtr& link, const Way& way);
    void cut(const LinkPtr& link, const Way& way, Ending ending);
    void end(const LinkPtr& link, bool reset);
    void updateEvents(Link& link);
    void updateEvents(Side& side, const Pipe& in, const Pipe& out);

    const Target m_target;
    FileDescriptor m_listener;
    const std::uint16_t m_port;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<Rule> m_rules;
    Counters m_counters;
    std::map<std::size_t, LinkPtr> m_links;
    EventLoop m_loop;
};

TcpRelay::Engine::Engine(Target target)
    : m_target(std::move(target))
    , m_listener(listenOnLoopback())
    , m_port(localPort(m_listener))
{
    m_loop.post([this] { m_loop.watch(m_listener.get(), EPOLLIN, [this](std::uint32_t) { accept(); }); });
}

TcpRelay::Engine::~Engine()
{
    m_loop.stop();
    // A gate that the test keeps may still hold a connection: closed here, not when the last holder goes.
    for (const auto& [index, link] : m_links) {
        link->client.socket.close();
        link->server.socket.close();
    }
}

void TcpRelay::Engine::add(Rule rule)
{
    const std::lock_guard lock(m_mutex);
    m_rules.push_back(std::move(rule));
}

void TcpRelay::Engine::passEverything()
{
    const std::lock_guard lock(m_mutex);
    m_rules.clear();
}

TcpRelay::Engine::Counters TcpRelay::Engine::counters() const
{
    const std::lock_guard lock(m_mutex);
    return m_counters;
}

template <class Condition>
void TcpRelay::Engine::waitUntil(const char* what, Condition holds) const
{
    std::unique_lock lock(m_mutex);
    if (m_changed.wait_for(lock, kDeadline, [&] { return holds(m_counters); }))
        return;
    throw std::runtime_error(std::string("relay: waited in vain for ") + what + "; connections " +
                             std::to_string(m_counters.accepted) + ", open " +
                             std::to_string(m_counters.open) + ", bytes to server " +
                             std::to_string(m_counters.toServer) + ", to client " +
                             std::to_string(m_counters.toClient));
}

void TcpRelay::Engine::accept()
{
    while (FileDescriptor client = acceptConnection(m_listener))
        start(std::move(client));
}

void TcpRelay::Engine::start(FileDescriptor client)
{
    auto link = std::make_shared<Link>();
    link->client.socket = std::move(client);
    link->server.socket = std::visit([](const auto& where) { return connectTo(where); }, m_target);
    {
        const std::lock_guard lock(m_mutex);
        link->index = m_counters.accepted++;
        ++m_counters.open;
        for (const auto& rule : m_rules) {
            if (rule.connection.value_or(link->index) != link->index)
                continue;
            Pipe& pipe = way(*link, rule.direction).pipe;
            pipe.rules.push_back(rule);
            pipe.countsMessages = pipe.countsMessages || rule.point.inMessages;
        }
        m_changed.notify_all();
    }
    m_links[link->index] = link;
    if (!link->server.socket) {
        end(link, true);
        return;
    }
    watch(link, link->client);
    watch(link, link->server);
    pump(link, Direction::toServer);
    pump(link, Direction::toClient);
}

void TcpRelay::Engine::watch(const LinkPtr& link, Side& side)
{
    side.events = EPOLLIN;
    side.watch = m_loop.watch(side.socket.get(), side.events,
        [this, link, &side](std::uint32_t events) { onEvents(link, side, events); });
}

void TcpRelay::Engine::onEvents(const LinkPtr& link, Side& side, std::uint32_t events)
{
    const bool isClient = &side == &link->client;
    const Direction from = isClient ? Direction::toServer : Direction::toClient;
    const Direction to = isClient ? Direction::toClient : Direction::toServer;
    if ((events & EPOLLOUT) != 0)
        pump(link, to);
    if (link->ended)
        return;
    if ((events & EPOLLIN) != 0)
        read(link, way(*link, from));
    else if ((events & (EPOLLERR | EPOLLHUP)) != 0)
        hangUp(link, side, way(*link, from).pipe, way(*link, to).pipe);
}

/// The side has ended both ways, in order or not. What it sent last may still be on its way to the other one.
void TcpRelay::Engine::hangUp(const LinkPtr& link, Side& side, const Pipe& in, const Pipe& out)
{
    if (in.sourceEnded && out.ended)
        m_loop.unwatch(std::exchange(side.watch, 0));
    else
        end(link, true);
}

void TcpRelay::Engine::read(const LinkPtr& link, const Way& way)
{
    std::array<char, 65536> buffer;
    const ssize_t count = ::recv(way.source.socket.get(), buffer.data(), buffer.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count < 0) {
        end(link, true);
        return;
    }
    const std::string_view bytes(buffer.data(), static_cast<std::size_t>(count));
    way.pipe.sourceEnded = bytes.empty();
    if (!way.pipe.dropsEverything)
        way.pipe.pending += bytes;
    if (way.pipe.countsMessages)
        way.pipe.boundaries.feed(bytes);
    pump(link, way.direction);
}

void TcpRelay::Engine::pump(const LinkPtr& link, Direction direction)
{
    if (link->ended)
        return;
    const Way w = way(*link, direction);
    bool goesOn = true;
    while (goesOn && !link->ended)
        goesOn = applyRule(link, w) && forward(link, w);
    if (link->ended)
        return;
    Pipe& pipe = w.pipe;
    if (pipe.sourceEnded && !pipe.ended && !pipe.isHeld && pipe.pending.empty()) {
        pipe.ended = true;
        ::shutdown(w.destination.socket.get(), SHUT_WR);
    }
    if (link->toServer.ended && link->toClient.ended && link->toServer.sourceEnded &&
        link->toClient.sourceEnded)
        end(link, false);
    else
        updateEvents(*link);
}

/// Returns false when nothing may pass for now.
bool TcpRelay::Engine::applyRule(const LinkPtr& link, const Way& w)
{
    w.pipe.isHeld = false;
    for (auto rule = ruleHere(w.pipe); rule != w.pipe.rules.end(); rule = ruleHere(w.pipe)) {
        const Gate reached = rule->reached;
        if (const auto* ending = std::get_if<Ending>(&rule->what)) {
            cut(link, w, *ending);
            w.pipe.rules.clear();
            reached.open();
            return false;
        }
        reached.open();
        if (const auto* bytes = std::get_if<Bytes>(&rule->what)) {
            w.pipe.pending.insert(0, *bytes);
            w.pipe.rules.erase(rule);
            continue;
        }
        const Gate gate = std::get<Gate>(rule->what);
        w.pipe.isHeld = !gate.isOpen();
        if (w.pipe.isHeld) {
            gate.whenOpen([this, link, direction = w.direction, mailbox = m_loop.mailbox()] {
                mailbox->post([this, link, direction] { pump(link, direction); });
            });
            return false;
        }
        w.pipe.rules.erase(rule);
    }
    return true;
}

/// Returns false when there is nothing more to forward for now.
bool TcpRelay::Engine::forward(const LinkPtr& link, const Way& w)
{
    const std::size_t length = allowance(w.pipe);
    if (length == 0)
        return false;
    const ssize_t sent = ::send(w.destination.socket.get(), w.pipe.pending.data(), length, MSG_NOSIGNAL);
    if (sent < 0 && (errno == EAGAIN || errno == EINTR))
        return errno == EINTR;
    if (sent < 0) {
        end(link, true);
        return false;
    }
    const auto count = static_cast<std::size_t>(sent);
    w.pipe.pending.erase(0, count);
    w.pipe.forwarded += count;
    const std::lock_guard lock(m_mutex);
    (w.direction == Direction::toServer ? m_counters.toServer : m_counters.toClient) += count;
    m_changed.notify_all();
    return true;
}

void TcpRelay::Engine::cut(const LinkPtr& link, const Way& w, Ending ending)
{
    if (ending != Ending::halfClose) {
        end(link, ending == Ending::reset);
        return;
    }
    w.pipe.pending.clear();
    w.pipe.dropsEverything = true;
    w.pipe.ended = true;
    ::shutdown(w.destination.socket.get(), SHUT_WR);
}

void TcpRelay::Engine::end(const LinkPtr& link, bool reset)
{
    if (std::exchange(link->ended, true))
        return;
    for (Side* side : {&link->client, &link->server}) {
        m_loop.unwatch(side->watch);
        if (reset)
            resetOnClose(side->socket);
        else
            drain(side->socket);
        side->socket.close();
    }
    m_links.erase(link->index);
    const std::lock_guard lock(m_mutex);
    --m_counters.open;
    m_changed.notify_all();
}

void TcpRelay::Engine::updateEvents(Link& link)
{
    updateEvents(link.client, link.toServer, link.toClient);
    updateEvents(link.server, link.toClient, link.toServer);
}

/// `in` is what comes from this side, `out` what goes to it.
void TcpRelay::Engine::updateEvents(Side& side, const Pipe& in, const Pipe& out)
{
    if (side.watch == 0)
        return;
    const bool reads = !in.sourceEnded && in.pending.size() < kBufferedAtMost;
    const bool writes = !out.isHeld && allowance(out) > 0;
    const std::uint32_t events =
        (reads ? std::uint32_t{EPOLLIN} : 0U) | (writes ? std::uint32_t{EPOLLOUT} : 0U);
    if (std::exchange(side.events, events) != events)
        m_loop.change(side.watch, events);
}

TcpRelay::TcpRelay(std::uint16_t serverPort, const std::string& serverAddress)
    : m_engine(std::make_unique<Engine>(internetAddress(serverPort, serverAddress)))
{}

TcpRelay::TcpRelay(std::string socketPath)
    : m_engine(std::make_unique<Engine>(std::move(socketPath)))
{}

TcpRelay::~TcpRelay() = default;

std::uint16_t TcpRelay::port() const { return m_engine->port(); }

std::string TcpRelay::url(const std::string& scheme) const
{
    return scheme + "://127.0.0.1:" + std::to_string(port());
}

Gate TcpRelay::hold(Direction direction, Point point, const Gate& gate, std::optional<std::size_t> connection)
{
    const Gate reached;
    m_engine->add({direction, point, gate, connection, reached});
    return reached;
}

Gate TcpRelay::cut(Direction direction, Point point, Ending ending, std::optional<std::size_t> connection)
{
    const Gate reached;
    m_engine->add({direction, point, ending, connection, reached});
    return reached;
}

Gate TcpRelay::insert(Direction direction, Point point, std::string bytes)
{
    const Gate reached;
    m_engine->add({direction, point, std::move(bytes), std::nullopt, reached});
    return reached;
}

void TcpRelay::passEverything() { m_engine->passEverything(); }

std::size_t TcpRelay::connections() const { return m_engine->counters().accepted; }

std::size_t TcpRelay::openConnections() const { return m_engine->counters().open; }

std::size_t TcpRelay::forwarded(Direction direction) const
{
    return m_engine->counters().forwarded(direction);
}

void TcpRelay::waitForConnections(std::size_t count) const
{
    m_engine->waitUntil("a connection", [&](const auto& counters) { return counters.accepted >= count; });
}

void TcpRelay::waitForBytes(Direction direction, std::size_t count) const
{
    m_engine->waitUntil(
        "bytes", [&](const auto& counters) { return counters.forwarded(direction) >= count; });
}

void TcpRelay::waitUntilIdle() const
{
    m_engine->waitUntil("the connections to end", [](const auto& counters) { return counters.open == 0; });
}

} // namespace tavo::test
