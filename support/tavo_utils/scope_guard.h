#pragma once

#include <utility>

namespace tavo::utils {

/// Runs a clean-up when the scope is left, on any path, unless it was dismissed.
///
///     const tavo::utils::ScopeGuard freeList([list] { freeTheList(list); });
///
/// Can neither be copied nor moved. A clean-up that throws ends the program.
template <class F>
class [[nodiscard]] ScopeGuard
{
public:
    explicit ScopeGuard(F cleanUp)
        : m_cleanUp(std::move(cleanUp))
    {}

    ~ScopeGuard()
    {
        if (m_armed) {
            m_cleanUp();
        }
    }

    ScopeGuard(const ScopeGuard&) = delete;
    ScopeGuard& operator=(const ScopeGuard&) = delete;

    /// Drops the clean-up, because somebody else is responsible for it now.
    void dismiss() noexcept { m_armed = false; }

private:
    F m_cleanUp;
    bool m_armed = true;
};

template <class F>
ScopeGuard(F) -> ScopeGuard<F>;

} // namespace tavo::utils
