#include "support/gate.h"

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace tavo::test {

struct Gate::State
{
    std::mutex mutex;
    std::condition_variable opened;
    bool isOpen = false;
    std::vector<std::function<void()>> functions;
};

Gate::Gate()
    : m_state(std::make_shared<State>())
{}

void Gate::open() const
{
    std::vector<std::function<void()>> functions;
    {
        const std::lock_guard lock(m_state->mutex);
        m_state->isOpen = true;
        functions.swap(m_state->functions);
    }
    m_state->opened.notify_all();
    for (const auto& function : functions)
        function();
}

bool Gate::isOpen() const
{
    const std::lock_guard lock(m_state->mutex);
    return m_state->isOpen;
}

void Gate::wait(const std::string& what, std::chrono::milliseconds deadline) const
{
    std::unique_lock lock(m_state->mutex);
    if (!m_state->opened.wait_for(lock, deadline, [this] { return m_state->isOpen; }))
        throw std::runtime_error("waited in vain for " + what);
}

void Gate::whenOpen(std::function<void()> function) const
{
    {
        const std::lock_guard lock(m_state->mutex);
        if (!m_state->isOpen) {
            m_state->functions.push_back(std::move(function));
            return;
        }
    }
    function();
}

} // namespace tavo::test
