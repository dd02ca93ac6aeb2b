#pragma once

#include <tavo_utils/export.h>
#include <tavo_utils/source_position.h>

#include <pthread.h>

#include <atomic>
#include <utility>

namespace tavo {

/// A mutex whose recursion is chosen at run time and which remembers where its holder took it.
///
/// Locking takes the position of the call: a hang can then be explained from holder(), and a lock observer
/// (setLockObserver()) sees which lock is taken where. Lock it through MutexLocker or Lockable.
///
/// Thread-safe, except that it must not be destroyed while it is held or waited for.
class TAVO_UTILS_EXPORT Mutex
{
public:
    /// Whether the thread that holds the mutex may lock it again. The numbers are fixed.
    enum class RecursionMode : int
    {
        nonRecursive = 0, ///< a second lock() of the holder throws
        recursive = 1,    ///< the mutex is free again after as many unlock() as lock()
    };

    /// Throws std::system_error when the system has no resources for it.
    explicit Mutex(RecursionMode mode);
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// Waits for the mutex and takes it. Throws std::system_error (resource_deadlock_would_occur) when the
    /// calling thread holds it already and it is not recursive, instead of waiting for itself.
    void lock(SourcePosition position = {});

    /// Takes the mutex if nobody else holds it; says whether it did. False, too, for the holder of a
    /// non-recursive one.
    [[nodiscard]] bool tryLock(SourcePosition position = {});

    /// Gives back one lock(). Only the thread that holds the mutex may call it.
    void unlock();

    /// Where the current holder took the mutex, with recursion the outermost place; a position without file
    /// and with line 0 when it is free. For diagnostics: may be outdated as soon as it is read, and mixes two
    /// positions when it is read at the moment in which the holder changes.
    [[nodiscard]] SourcePosition holder() const noexcept;

private:
    void taken(SourcePosition position) noexcept;

    pthread_mutex_t m_mutex;
    int m_depth = 0; // guarded by m_mutex
    std::atomic<const char*> m_holderFile{""};
    std::atomic<int> m_holderLine{0};
};

/// What a lock observer is told about.
enum class LockEvent : int
{
    locked,   ///< the mutex has just been taken
    unlocked, ///< the mutex is about to be given back
};

/// Called on the locking thread, with the mutex held, for every lock and unlock of any tavo::Mutex. The
/// position is that of the lock() call; for unlocked it is the outermost one of the holder. Must not throw
/// and must not use the mutex.
using LockObserver = void (*)(const Mutex& mutex, SourcePosition position, LockEvent event);

/// Sets the process-wide lock observer, for a deadlock detector or a test; nullptr (the default) for none.
/// Returns the previous one. Thread-safe; a call of the previous observer may still be running on another
/// thread. While there is none, a lock pays one atomic load for this.
TAVO_UTILS_EXPORT LockObserver setLockObserver(LockObserver observer) noexcept;

/// Holds a Mutex while it lives. For one thread.
class MutexLocker
{
public:
    /// Locks @p mutex, which has to outlive the locker or its unlock(). Throws what Mutex::lock() throws.
    explicit MutexLocker(Mutex& mutex, SourcePosition position = {})
        : m_mutex(&mutex)
    {
        mutex.lock(position);
    }
    ~MutexLocker() { unlock(); }
    MutexLocker(const MutexLocker&) = delete;
    MutexLocker& operator=(const MutexLocker&) = delete;

    /// Unlocks before the end of the scope. Does nothing the second time.
    void unlock()
    {
        if (Mutex* const mutex = std::exchange(m_mutex, nullptr)) {
            mutex->unlock();
        }
    }

private:
    Mutex* m_mutex;
};

/// A value together with the mutex that guards it, so that it can't be reached without the lock.
///
///     tavo::Lockable<std::vector<int>> numbers(tavo::Mutex::RecursionMode::recursive);
///     numbers.lock()->push_back(1);
///
/// Thread-safe, except for construction and destruction.
template <class T>
class Lockable
{
public:
    /// Gives access to the value and holds the mutex until it is destroyed, moved from or unlocked.
    /// Move-only; stays on the thread that made it and must not outlive its Lockable.
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

        /// The value. Not to be used after unlock() or a move.
        [[nodiscard]] Value& operator*() const noexcept { return *m_value; }
        [[nodiscard]] Value* operator->() const noexcept { return m_value; }

        /// Gives the mutex back before the end of the scope; the value is out of reach from then on.
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

    /// Makes the value by default.
    explicit Lockable(Mutex::RecursionMode mode)
        : m_mutex(mode)
        , m_value()
    {}
    /// Takes @p value over.
    Lockable(Mutex::RecursionMode mode, T value)
        : m_mutex(mode)
        , m_value(std::move(value))
    {}
    Lockable(const Lockable&) = delete;
    Lockable& operator=(const Lockable&) = delete;

    /// Waits for the mutex and gives access to the value. Throws what Mutex::lock() throws.
    [[nodiscard]] Accessor<T> lock(SourcePosition position = {})
    {
        return Accessor<T>(m_mutex, m_value, position);
    }
    /// The same for reading.
    [[nodiscard]] Accessor<const T> lock(SourcePosition position = {}) const
    {
        return Accessor<const T>(m_mutex, m_value, position);
    }

private:
    mutable Mutex m_mutex;
    T m_value;
};

} // namespace tavo
