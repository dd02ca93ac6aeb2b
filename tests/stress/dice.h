#pragma once

#include <cstdint>
#include <initializer_list>
#include <random>

namespace tavo::stress {

/// Reproducible random choices: the same seed gives the same choices. For one thread at a time.
class Dice
{
public:
    explicit Dice(std::uint64_t seed)
        : m_engine(seed)
    {}

    /// From 0 to `count - 1`.
    int below(int count) { return std::uniform_int_distribution<int>(0, count - 1)(m_engine); }

    bool chance(int percent) { return below(100) < percent; }

    template <class T>
    T oneOf(std::initializer_list<T> values)
    {
        return *(values.begin() + below(static_cast<int>(values.size())));
    }

    /// Separate dice for another thread.
    Dice split() { return Dice(m_engine()); }

private:
    std::mt19937_64 m_engine;
};

} // namespace tavo::stress
