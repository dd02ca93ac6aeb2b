#pragma once

#include <tavo_utils/export.h>
#include <tavo_utils/source_position.h>

#include <pthread.h>

#include <atomic>
#include <thread>
#include <utility>

namespace tavo {

/// A mutex that is recursive or not as chosen at run time, and that remembers where its holder locked it.
///
/// `lock` takes the position of the call, so that `holder` can explain a hang and a lock observer
/// (`setLockObserver`) sees which mutex is locked where. Lock it through `MutexLocker` or `Lockable`.
///
/// Threads: thread-safe, but must not be destroyed while it is held or waited for.
class TAVO_UTILS_EXPORT Mutex
{
public:
    /// Whether the thread that holds the mutex may lock it again. The numbers are fixed.
    enum class RecursionMode : int
    {
        /// A second `lock` by the holder throws.
        nonRecursive = 0,

        /// Each `lock` needs an `unlock` of its own.
        recursive = 1,
    };

    /// \throws std::system_error when the system has no resources for it
    explicit Mutex(RecursionMode mode);
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// Waits for the mutex and locks it.
    /// \throws std::system_error (`std::errc::resource_deadlock_would_occur`) when the calling thread holds
    ///         it already and it is not recursive
    void lock(SourcePosition position = {});

    /// Locks the mutex if that needs no waiting.
    /// \return whether it did; false also for the holder of a non-recursive mutex
    [[nodiscard]] bool tryLock(SourcePosition position = {});

    /// Undoes one `lock`. Only the holder may call it; a call by another thread, or while nobody holds the
    /// mutex, is reported as an assertion and changes nothing.
    void unlock();

    /// Where the current holder locked the mutex (with recursion, the outermost lock); an empty file and line
    /// 0 when it is free. For diagnostics: may be outdated as soon as it is read, and may mix two positions
    /// while the holder changes.
    SourcePosition holder() const noexcept;

private:
    bool isHeldByThisThread() const noexcept;
    void reportWrongUnlock() const;
    void taken(SourcePosition position) noexcept;

    pthread_mutex_t m_mutex;

    /// Guarded by `m_mutex`.
    int m_depth = 0;

    /// The default id when the mutex is free.
    std::atomic<std::thread::id> m_owner{};

    std::atomic<const char*> m_holderFile{""};
    std::atomic<int> m_holderLine{0};
};

/// What a lock observer is notified of.
enum class LockEvent : int
{
    /// The mutex has just been locked.
    locked,

    /// The mutex is about to be unlocked.
    unlocked,
};

/// Called on the locking thread, with the mutex held, for every lock and unlock of any `Mutex`. The position
/// is that of the `lock` call; for `LockEvent::unlocked` that of the holder's outermost one. Must not throw
/// and must not use the mutex.
using LockObserver = void (*)(const Mutex& mutex, SourcePosition position, LockEvent event);

/// Sets the process-wide lock observer, for a deadlock detector or a test; a null pointer (the default) sets
/// none.
///
/// Thread-safe; a call of the previous observer may still be running on another thread. Without an observer a
/// lock costs one additional atomic load.
/// \return the previous observer
TAVO_UTILS_EXPORT LockObserver setLockObserver(LockObserver observer) noexcept;

/// Holds a `Mutex` while it lives. Stays on one thread.
class MutexLocker
{
public:
    /// Locks the mutex, which must outlive the locker or its `unlock`.
    /// \throws what `Mutex::lock` throws
    explicit MutexLocker(Mutex& mutex, SourcePosition position = {})
        : m_mutex(&mutex)
    {
        mutex.lock(position);
    }

    ~MutexLocker() { unlock(); }

    MutexLocker(const MutexLocker&) = delete;
    MutexLocker& operator=(const MutexLocker&) = delete;

    /// Unlocks before the end of the scope. A second call does nothing.
    void unlock()
    {
        if (Mutex* const mutex = std::exchange(m_mutex, nullptr)) {
            mutex->unlock();
        }
    }

private:
    Mutex* m_mutex;
};

/// A value together with the mutex that guards it: the value can't be reached without locking.
///
///     tavo::Lockable<std::vector<int>> numbers(tavo::Mutex::RecursionMode::recursive);
///     numbers.lock()->push_back(1);
///
/// Threads: thread-safe, except for construction and destruction.
template <class T>
class Lockable
{
public:
    /// Gives access to the value and holds the mutex until it is destroyed, moved from or unlocked.
    /// Move-only; stays on the thread that made it and must not outlive its `Lockable`.
    template <class Value>
    class Accessor
    {
    public:
        Accessor(Mutex& mutex, Value& value, SourcePosition position)
            : m_mutex(&mutex)
            , m_value(&value)
        {
            mutex.lock(position);
        }

        ~Accessor() { unlock(); }

        Accessor(Accessor&& other) noexcept
            : m_mutex(std::exchange(other.m_mutex, nullptr))
            , m_value(std::exchange(other.m_value, nullptr))
        {}

        Accessor& operator=(Accessor&& other) noexcept
        {
            if (this == &other) {
                return *this;
            }
            unlock();
            m_mutex = std::exchange(other.m_mutex, nullptr);
            m_value = std::exchange(other.m_value, nullptr);
            return *this;
        }

        /// The value; not to be used after `unlock` or a move.
        Value& operator*() const noexcept { return *m_value; }
        Value* operator->() const noexcept { return m_value; }

        /// Unlocks the mutex before the end of the scope; the value can't be reached from then on.
        void unlock()
        {
            m_value = nullptr;
            if (Mutex* const mutex = std::exchange(m_mutex, nullptr)) {
                mutex->unlock();
            }
        }

    private:
        Mutex* m_mutex;
        Value* m_value;
    };

    /// Value-initialises the value.
    explicit Lockable(Mutex::RecursionMode mode)
        : m_mutex(mode)
        , m_value()
    {}

    /// Takes over `value`.
    Lockable(Mutex::RecursionMode mode, T value)
        : m_mutex(mode)
        , m_value(std::move(value))
    {}

    Lockable(const Lockable&) = delete;
    Lockable& operator=(const Lockable&) = delete;

    /// Waits for the mutex and gives access to the value.
    /// \throws what `Mutex::lock` throws
    [[nodiscard]] Accessor<T> lock(SourcePosition position = {})
    {
        return Accessor<T>(m_mutex, m_value, position);
    }

    /// The same, for reading.
    [[nodiscard]] Accessor<const T> lock(SourcePosition position = {}) const
    {
        return Accessor<const T>(m_mutex, m_value, position);
    }

private:
    mutable Mutex m_mutex;
    T m_value;
};

} // namespace tavo
