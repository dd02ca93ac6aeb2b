#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace tavo::test {

/// How long the test support waits for anything before it gives up: long enough for a sanitized build on a
/// busy machine, and never reached by a test that passes.
inline constexpr std::chrono::seconds kDeadline{30};

/// A one-time event, by which a test and a scripted peer tell each other to continue.
///
/// Copies share one gate. Any thread may open it or wait for it; an open gate stays open.
class Gate
{
public:
    Gate();

    /// Opens the gate: releases every waiter and runs every function given to `whenOpen`, on this thread.
    void open() const;

    bool isOpen() const;

    /// Blocks until the gate is open. Throws `std::runtime_error` naming `what` if the deadline passes first.
    void wait(const std::string& what = "a gate", std::chrono::milliseconds deadline = kDeadline) const;

    /// Runs `function` once: when the gate opens, or immediately if it is already open.
    void whenOpen(std::function<void()> function) const;

private:
    struct State;
    std::shared_ptr<State> m_state;
};

} // namespace tavo::test
