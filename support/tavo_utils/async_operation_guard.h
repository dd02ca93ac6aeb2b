#pragma once

#include <tavo_utils/export.h>

#include <memory>
#include <thread>

namespace tavo::utils {

/// Lets a callback find out whether the object that it is for still exists, and keeps that object from being
/// destroyed while the callback uses it.
///
///     class Session
///     {
///         void start()
///         {
///             run([this, guard = m_guard.sharedGuard()] {
///                 if (const auto lock = guard.lock())
///                     finished(); // the session exists until the lock is released
///             });
///         }
///         ~Session() { m_guard.invalidate(); } // before any member that callbacks use is destroyed
///         AsyncOperationGuard m_guard;
///     };
///
/// A callback may destroy the owner itself: a lock of the thread that invalidates is not waited for. Two
/// threads that each hold a lock and each invalidate the same guard would wait for each other; an object is
/// destroyed once, so destroying it from its callbacks can't lead there.
///
/// Thread-safe, except for construction and destruction of the guard itself.
class TAVO_UTILS_EXPORT AsyncOperationGuard
{
    struct State;

public:
    /// Move-only proof that the owner existed when the lock was taken, and, while it is true, a stop for the
    /// owner's invalidate() on other threads. It belongs to the thread that took it and must be released
    /// there.
    class TAVO_UTILS_EXPORT Lock
    {
    public:
        Lock() noexcept = default;
        Lock(Lock&& other) noexcept;
        Lock& operator=(Lock&& other) noexcept;
        ~Lock();

        /// Whether the owner exists.
        explicit operator bool() const noexcept { return m_state != nullptr; }

        /// Releases early; the lock is false from then on.
        void unlock() noexcept;

    private:
        friend class AsyncOperationGuard;
        friend struct State;
        explicit Lock(std::shared_ptr<State> state) noexcept;

        /// Null for a false lock; a true one is in the state's list.
        std::shared_ptr<State> m_state;
        std::thread::id m_holder;
        Lock* m_next = nullptr;
    };

    /// What callbacks keep: copyable, and good for any time after the owner is gone.
    class TAVO_UTILS_EXPORT SharedGuard
    {
    public:
        /// Guards nothing: every lock() is false.
        SharedGuard() noexcept = default;

        /// A true lock while the owner exists, a false one for ever after its invalidate() has begun. One
        /// thread may hold several, and any number of threads may hold some. Needs no memory.
        [[nodiscard]] Lock lock() const noexcept;

    private:
        friend class AsyncOperationGuard;
        explicit SharedGuard(std::shared_ptr<State> state) noexcept;

        std::shared_ptr<State> m_state;
    };

    AsyncOperationGuard();
    /// Invalidates.
    ~AsyncOperationGuard();
    AsyncOperationGuard(const AsyncOperationGuard&) = delete;
    AsyncOperationGuard& operator=(const AsyncOperationGuard&) = delete;

    /// A guard to hand to a callback.
    [[nodiscard]] SharedGuard sharedGuard() const;

    /// Makes every later lock() false, then waits until no other thread holds a true lock. May be called
    /// again, also from another thread, which then waits in the same way.
    void invalidate();

private:
    std::shared_ptr<State> m_state;
};

} // namespace tavo::utils
