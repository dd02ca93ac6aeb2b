#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace tavo::ldap {

/// What an interrupter ends.
class Interruptible
{
public:
    virtual ~Interruptible() = default;

    /// Called on any thread, once or more often. Must not wait, nor use the interruption.
    virtual void interrupt() noexcept = 0;
};

/// What all copies of an interrupter share. Thread-safe.
class Interruption
{
public:
    /// \throws std::system_error
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    /// Interrupts it at once if that has happened already.
    void add(std::weak_ptr<Interruptible> target);

    void interrupt() noexcept;
    bool isInterrupted() const noexcept { return m_isInterrupted; }

    /// Readable from the interruption on, for poll(2).
    int descriptor() const noexcept { return m_descriptor; }

private:
    std::mutex m_mutex;
    std::vector<std::weak_ptr<Interruptible>> m_targets;
    std::atomic<bool> m_isInterrupted = false;
    int m_descriptor;
};

} // namespace tavo::ldap
