#pragma once

#include <tavo_utils/export.h>

#include <memory>
#include <thread>

namespace tavo::utils {

/// Tells a callback whether the object that it belongs to still exists, and keeps that object from being
/// destroyed while the callback uses it.
///
///     class Session
///     {
///         void start()
///         {
///             run([this, guard = m_guard.sharedGuard()] {
///                 if (const auto lock = guard.lock()) {
///                     finished(); // the session exists until the lock is released
///                 }
///             });
///         }
///         ~Session() { m_guard.invalidate(); } // before any member that callbacks use is destroyed
///         AsyncOperationGuard m_guard;
///     };
///
/// A callback may destroy the owner: locks of the invalidating thread are not waited for. Two threads that
/// each hold a lock and both invalidate the same guard would deadlock; destroying the owner from its
/// callbacks can't lead there, because an object is destroyed only once.
///
/// Threads: thread-safe, except for construction and destruction of the guard itself.
class TAVO_UTILS_EXPORT AsyncOperationGuard
{
    struct State;

public:
    /// Move-only proof that the owner existed when the lock was taken. While it is true, the owner's
    /// `invalidate` blocks on other threads. Belongs to the thread that took it and must be released there.
    class TAVO_UTILS_EXPORT Lock
    {
    public:
        Lock() noexcept = default;
        Lock(Lock&& other) noexcept;
        Lock& operator=(Lock&& other) noexcept;
        ~Lock();

        /// Whether the owner exists.
        explicit operator bool() const noexcept { return m_state != nullptr; }

        /// Releases the lock early; it is false from then on.
        void unlock() noexcept;

    private:
        friend class AsyncOperationGuard;
        friend struct State;
        explicit Lock(std::shared_ptr<State> state) noexcept;

        /// Null for a false lock; a true lock is in the state's list.
        std::shared_ptr<State> m_state;
        std::thread::id m_holder;
        Lock* m_next = nullptr;
    };

    /// What callbacks keep. Copyable; may outlive the owner.
    class TAVO_UTILS_EXPORT SharedGuard
    {
    public:
        /// Guards nothing: every `lock` is false.
        SharedGuard() noexcept = default;

        /// A true lock while the owner exists; a false one once its `invalidate` has begun. Any number of
        /// threads may each hold several. Allocates no memory.
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

    /// A guard to pass to a callback.
    SharedGuard sharedGuard() const;

    /// Makes every later `lock` false, then waits until no other thread holds a true lock. Another call, also
    /// from another thread, waits in the same way.
    void invalidate();

private:
    std::shared_ptr<State> m_state;
};

} // namespace tavo::utils
