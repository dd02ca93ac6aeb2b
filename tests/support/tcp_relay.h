#pragma once

#include "support/gate.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace tavo::test {

/// A relay on 127.0.0.1 in front of a real server, which delays, stalls and cuts connections.
///
///     TcpRelay relay(slapd.port());
///     const Gate goOn;
///     const Gate reached = relay.hold(TcpRelay::Direction::toClient, TcpRelay::bytes(100), goOn);
///     ... a client connects to relay.url() and waits for the rest of its answer ...
///     reached.wait("the first 100 bytes");
///     goOn.open();
///
/// A hold, a cut or an insertion applies to the connections accepted after it was asked for. Every member may
/// be called from any thread. The waits throw `std::runtime_error` when `kDeadline` passes.
class TcpRelay
{
public:
    enum class Direction
    {
        toServer,
        toClient
    };

    /// `close` and `reset` end both connections at once. `halfClose` ends one direction, as its receiver sees
    /// it: what follows in that direction is dropped, the other direction stays open.
    enum class Ending
    {
        close,
        halfClose,
        reset
    };

    /// A position in the stream of one direction of a connection.
    struct Point
    {
        std::size_t count = 0;
        bool inMessages = false;
    };

    /// After `count` bytes.
    static Point bytes(std::size_t count) { return {count, false}; }
    /// After `count` whole LDAP messages; for traffic without TLS.
    static Point messages(std::size_t count) { return {count, true}; }

    /// Relays to a TCP port of a loopback address.
    explicit TcpRelay(std::uint16_t serverPort, const std::string& serverAddress = "127.0.0.1");
    /// Relays to a Unix domain socket.
    explicit TcpRelay(std::string socketPath);
    ~TcpRelay();
    TcpRelay(const TcpRelay&) = delete;
    TcpRelay& operator=(const TcpRelay&) = delete;

    std::uint16_t port() const;
    std::string url(const std::string& scheme = "ldap") const;

    /// Holds back everything after `point` until `gate` opens; a gate that is never opened stalls the
    /// connection. The returned gate opens when a connection reaches that point. `connection` counts from 0;
    /// without it, the hold applies to every connection.
    Gate hold(Direction direction, Point point, const Gate& gate,
        std::optional<std::size_t> connection = std::nullopt);

    /// Ends the connection at `point`; the returned gate opens when that has happened.
    Gate cut(Direction direction, Point point, Ending ending,
        std::optional<std::size_t> connection = std::nullopt);

    /// Adds bytes at `point` of every connection, as a man in the middle would. Points behind it count them.
    Gate insert(Direction direction, Point point, std::string bytes);

    /// Removes all holds, cuts and insertions for later connections.
    void passEverything();

    /// The connections since the start, those still open, and the bytes forwarded in one direction on all.
    std::size_t connections() const;
    std::size_t openConnections() const;
    std::size_t forwarded(Direction direction) const;

    void waitForConnections(std::size_t count) const;
    /// Blocks until `count` bytes have been forwarded in that direction, on all connections together.
    void waitForBytes(Direction direction, std::size_t count) const;
    /// Blocks until no connection is open.
    void waitUntilIdle() const;

private:
    class Engine;

    std::unique_ptr<Engine> m_engine;
};

} // namespace tavo::test
