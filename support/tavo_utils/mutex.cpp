#include "tavo_utils/mutex.h"

#include <tavo_utils/assert.h>
#include <tavo_utils/formatter.h>

#include <cerrno>
#include <system_error>

namespace tavo {

namespace {

constinit std::atomic<LockObserver> lockObserver{nullptr};

void notify(const Mutex& mutex, SourcePosition position, LockEvent event)
{
    if (const LockObserver observer = lockObserver.load(std::memory_order_acquire)) {
        observer(mutex, position, event);
    }
}

void throwOnError(int code, const char* what)
{
    if (code != 0) {
        throw std::system_error(code, std::generic_category(), what);
    }
}

/// Fixed, because monitoring matches on it; moving code must not change it.
constexpr SourcePosition unlockPosition{"tavo_utils/mutex", 60};

/// Error checking costs a comparison and turns a deadlock of a thread with itself into an exception.
int pthreadType(Mutex::RecursionMode mode)
{
    return mode == Mutex::RecursionMode::recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_ERRORCHECK;
}

} // namespace

Mutex::Mutex(RecursionMode mode)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, pthreadType(mode));
    const int code = pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    throwOnError(code, "tavo::Mutex");
}

Mutex::~Mutex() { pthread_mutex_destroy(&m_mutex); }

void Mutex::lock(SourcePosition position)
{
    throwOnError(pthread_mutex_lock(&m_mutex), "tavo::Mutex::lock");
    taken(position);
}

bool Mutex::tryLock(SourcePosition position)
{
    const int code = pthread_mutex_trylock(&m_mutex);
    if (code == EBUSY) {
        return false;
    }
    throwOnError(code, "tavo::Mutex::tryLock");
    taken(position);
    return true;
}

void Mutex::unlock()
{
    if (!isHeldByThisThread()) {
        return reportWrongUnlock();
    }
    notify(*this, holder(), LockEvent::unlocked);
    if (--m_depth == 0) {
        m_owner.store(std::thread::id(), std::memory_order_relaxed);
        m_holderFile.store("", std::memory_order_relaxed);
        m_holderLine.store(0, std::memory_order_relaxed);
    }
    pthread_mutex_unlock(&m_mutex);
}

// An assertion rather than an exception, because `unlock` is called by destructors.
void Mutex::reportWrongUnlock() const
{
    const bool isHeld = m_owner.load(std::memory_order_relaxed) != std::thread::id();
    const SourcePosition since = holder();
    assertFailure(unlockPosition, "isHeldByThisThread()",
        isHeld ? utils::format(u"Held since %1:%2", since.file, since.line) : QStringLiteral("Not held"));
}

SourcePosition Mutex::holder() const noexcept
{
    return {m_holderFile.load(std::memory_order_relaxed), m_holderLine.load(std::memory_order_relaxed)};
}

// Relaxed is enough: only this thread stores its own id and takes it away again.
bool Mutex::isHeldByThisThread() const noexcept
{
    return m_owner.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

void Mutex::taken(SourcePosition position) noexcept
{
    if (m_depth++ == 0) {
        m_owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
        m_holderFile.store(position.file, std::memory_order_relaxed);
        m_holderLine.store(position.line, std::memory_order_relaxed);
    }
    notify(*this, position, LockEvent::locked);
}

LockObserver setLockObserver(LockObserver observer) noexcept
{
    return lockObserver.exchange(observer, std::memory_order_acq_rel);
}

} // namespace tavo
