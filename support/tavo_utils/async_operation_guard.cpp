#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <tavo_utils/async_operation_guard.h>
#include <utility>
#include <vector>

namespace tavo::utils {

struct AsyncOperationGuard::State
{
    bool enter(std::thread::id thread)
    {
        const std::lock_guard lock(mutex);
        if (valid)
            holders.push_back(thread);
        return valid;
    }

    void leave(std::thread::id thread)
    {
        const std::lock_guard lock(mutex);
        holders.erase(std::find(holders.begin(), holders.end(), thread));
        if (!valid)
            left.notify_all();
    }

    void invalidate(std::thread::id thread)
    {
        std::unique_lock lock(mutex);
        valid = false;
        left.wait(lock, [&] {
            return std::all_of(holders.begin(), holders.end(), [&](auto holder) { return holder == thread; });
        });
    }

    std::mutex mutex;
    std::condition_variable left;
    bool valid = true;
    std::vector<std::thread::id> holders; // one element per lock: threads nest them
};

AsyncOperationGuard::Lock::Lock(std::shared_ptr<State> state) noexcept
    : m_state(std::move(state))
    , m_holder(std::this_thread::get_id())
{}

AsyncOperationGuard::Lock::Lock(Lock&& other) noexcept = default;

AsyncOperationGuard::Lock& AsyncOperationGuard::Lock::operator=(Lock&& other) noexcept
{
    if (this == &other)
        return *this;
    unlock();
    m_state = std::move(other.m_state);
    m_holder = other.m_holder;
    return *this;
}

AsyncOperationGuard::Lock::~Lock() { unlock(); }

void AsyncOperationGuard::Lock::unlock() noexcept
{
    if (const auto state = std::exchange(m_state, nullptr))
        state->leave(m_holder);
}

AsyncOperationGuard::SharedGuard::SharedGuard(std::shared_ptr<State> state) noexcept
    : m_state(std::move(state))
{}

AsyncOperationGuard::Lock AsyncOperationGuard::SharedGuard::lock() const
{
    if (m_state && m_state->enter(std::this_thread::get_id()))
        return Lock(m_state);
    return {};
}

AsyncOperationGuard::AsyncOperationGuard()
    : m_state(std::make_shared<State>())
{}

AsyncOperationGuard::~AsyncOperationGuard() { invalidate(); }

AsyncOperationGuard::SharedGuard AsyncOperationGuard::sharedGuard() const { return SharedGuard(m_state); }

void AsyncOperationGuard::invalidate() { m_state->invalidate(std::this_thread::get_id()); }

} // namespace tavo::utils
