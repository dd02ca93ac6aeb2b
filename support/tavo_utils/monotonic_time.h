#pragma once

#include <tavo_utils/export.h>

#include <chrono>

namespace tavo::utils {

/// Time that only goes forward, whatever happens to the machine's clock. Thread-safe.
class TAVO_UTILS_EXPORT MonotonicTime
{
public:
    MonotonicTime() = delete;

    using TimePoint = std::chrono::steady_clock::time_point;
    /// Where the time comes from.
    using Source = TimePoint (*)();

    [[nodiscard]] static TimePoint now();

    /// Lets a test make time pass: now() asks @p source from then on; nullptr restores the steady clock.
    /// Returns the previous source, nullptr for the steady clock.
    static Source setSource(Source source) noexcept;
};

} // namespace tavo::utils
