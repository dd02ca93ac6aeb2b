#pragma once

#include "support/gate.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace tavo::test {

/// A relay on 127.0.0.1 in front of a real server, that holds, stalls and cuts what passes through it.
///
///     TcpRelay relay(slapd.port());
///     const Gate goOn;
///     const Gate reached = relay.hold(TcpRelay::Direction::toClient, TcpRelay::bytes(100), goOn);
///     ... a client connects to relay.url() and waits for the rest of its answer ...
///     reached.wait("the first 100 bytes");
///     goOn.open();
///
/// What is asked for counts for the connections accepted from then on. Every member may be called from any
/// thread. The waits throw `std::runtime_error` when `kDeadline` passes.
class TcpRelay
{
public:
    enum class Direction
    {
        toServer,
        toClient
    };

    /// `close` and `reset` end both connections at once. `halfClose` ends the one direction for whom it would
    /// have reached: what comes after it that way is dropped, the other way stays open.
    enum class Ending
    {
        close,
        halfClose,
        reset
    };

    /// A place in what one connection carries one way.
    struct Point
    {
        std::size_t count = 0;
        bool inMessages = false;
    };

    /// After so many bytes.
    static Point bytes(std::size_t count) { return {count, false}; }
    /// After so many whole LDAP messages; for traffic without TLS.
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

    /// Keeps back what comes after `point` until `gate` opens; a gate that nobody opens stalls the
    /// connection. The gate returned opens when a connection comes to that point. `connection` counts from 0;
    /// without it, every connection is meant.
    Gate hold(Direction direction, Point point, const Gate& gate,
        std::optional<std::size_t> connection = std::nullopt);

    /// Ends the connection at `point`; the gate returned opens when that has happened.
    Gate cut(Direction direction, Point point, Ending ending,
        std::optional<std::size_t> connection = std::nullopt);

    /// Later connections pass untouched.
    void passEverything();

    /// Connections since the start; those that are still open; bytes forwarded that way on all of them.
    std::size_t connections() const;
    std::size_t openConnections() const;
    std::size_t forwarded(Direction direction) const;

    void waitForConnections(std::size_t count) const;
    /// Blocks until so many bytes were forwarded that way, on all connections together.
    void waitForBytes(Direction direction, std::size_t count) const;
    /// Blocks until no connection is open.
    void waitUntilIdle() const;

private:
    class Engine;

    std::unique_ptr<Engine> m_engine;
};

} // namespace tavo::test
