#include "tavo_utils/async_operation_guard.h"

#include <condition_variable>
#include <mutex>
#include <utility>

namespace tavo::utils {

/// The true locks form an intrusive list, so that taking one can't fail.
struct AsyncOperationGuard::State
{
    /// Does nothing and returns false when the owner is gone.
    bool enter(Lock& holder)
    {
        const std::lock_guard lock(m_mutex);
        if (m_valid) {
            holder.m_next = std::exchange(m_first, &holder);
        }
        return m_valid;
    }

    void leave(const Lock& holder)
    {
        const std::lock_guard lock(m_mutex);
        *linkTo(holder) = holder.m_next;
        if (!m_valid) {
            m_left.notify_all();
        }
    }

    void replace(const Lock& former, Lock& holder)
    {
        const std::lock_guard lock(m_mutex);
        holder.m_next = former.m_next;
        *linkTo(former) = &holder;
    }

    void invalidate(std::thread::id thread)
    {
        std::unique_lock lock(m_mutex);
        m_valid = false;
        m_left.wait(lock, [&] { return isHeldByNoOther(thread); });
    }

private:
    bool isHeldByNoOther(std::thread::id thread) const
    {
        const Lock* holder = m_first;
        while (holder != nullptr && holder->m_holder == thread) {
            holder = holder->m_next;
        }
        return holder == nullptr;
    }

    Lock** linkTo(const Lock& holder)
    {
        Lock** link = &m_first;
        while (*link != &holder) {
            link = &(*link)->m_next;
        }
        return link;
    }

    std::mutex m_mutex;
    std::condition_variable m_left;
    bool m_valid = true;
    Lock* m_first = nullptr;
};

AsyncOperationGuard::Lock::Lock(std::shared_ptr<State> state) noexcept
    : m_holder(std::this_thread::get_id())
{
    if (state && state->enter(*this)) {
        m_state = std::move(state);
    }
}

AsyncOperationGuard::Lock::Lock(Lock&& other) noexcept { *this = std::move(other); }

AsyncOperationGuard::Lock& AsyncOperationGuard::Lock::operator=(Lock&& other) noexcept
{
    if (this == &other) {
        return *this;
    }
    unlock();
    m_holder = other.m_holder;
    m_state = std::exchange(other.m_state, nullptr);
    if (m_state) {
        m_state->replace(other, *this);
    }
    return *this;
}

AsyncOperationGuard::Lock::~Lock() { unlock(); }

void AsyncOperationGuard::Lock::unlock() noexcept
{
    if (const auto state = std::exchange(m_state, nullptr)) {
        state->leave(*this);
    }
}

AsyncOperationGuard::SharedGuard::SharedGuard(std::shared_ptr<State> state) noexcept
    : m_state(std::move(state))
{}

AsyncOperationGuard::Lock AsyncOperationGuard::SharedGuard::lock() const noexcept { return Lock(m_state); }

AsyncOperationGuard::AsyncOperationGuard()
    : m_state(std::make_shared<State>())
{}

AsyncOperationGuard::~AsyncOperationGuard() { invalidate(); }

AsyncOperationGuard::SharedGuard AsyncOperationGuard::sharedGuard() const { return SharedGuard(m_state); }

void AsyncOperationGuard::invalidate() { m_state->invalidate(std::this_thread::get_id()); }

} // namespace tavo::utils
