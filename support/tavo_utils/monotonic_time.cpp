#include "tavo_utils/monotonic_time.h"

#include <atomic>

namespace tavo::utils {

namespace {

constinit std::atomic<MonotonicTime::Source> replacement{nullptr};

} // namespace

MonotonicTime::TimePoint MonotonicTime::now()
{
    const Source source = replacement.load(std::memory_order_acquire);
    return source ? source() : std::chrono::steady_clock::now();
}

MonotonicTime::Source MonotonicTime::setSource(Source source) noexcept
{
    return replacement.exchange(source, std::memory_order_acq_rel);
}

} // namespace tavo::utils
