#pragma once

#include <utility>

namespace tavo::utils {

/// Runs a clean-up when the scope is left, on every path, unless it was dismissed.
///
///     const tavo::utils::ScopeGuard freeList([list] { freeTheList(list); });
///
/// Stays where it was made: neither copied nor moved. The clean-up must not throw: the program would end.
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

    /// Leaves the clean-up out: somebody else has taken the duty over.
    void dismiss() noexcept { m_armed = false; }

private:
    F m_cleanUp;
    bool m_armed = true;
};

template <class F>
ScopeGuard(F) -> ScopeGuard<F>;

} // namespace tavo::utils
