#pragma once

#include <tavo_utils/export.h>

#include <chrono>

namespace tavo::utils {

/// Time that only goes forward, whatever is done to the machine's clock. Thread-safe.
class TAVO_UTILS_EXPORT MonotonicTime
{
public:
    MonotonicTime() = delete;

    using TimePoint = std::chrono::steady_clock::time_point;

    /// A function that gives the time.
    using Source = TimePoint (*)();

    static TimePoint now();

    /// Lets a test make time pass: `now` asks `source` from then on. A null pointer restores the steady
    /// clock.
    /// \return the previous source; null for the steady clock
    static Source setSource(Source source) noexcept;
};

} // namespace tavo::utils
