#include <tavo_utils/monotonic_time.h>

#include <gtest/gtest.h>

namespace tavo::utils {
namespace {

MonotonicTime::TimePoint noon() { return MonotonicTime::TimePoint(std::chrono::hours(12)); }

TEST(MonotonicTime, FollowsTheSteadyClock)
{
    const auto before = std::chrono::steady_clock::now();
    const auto now = MonotonicTime::now();
    EXPECT_LE(before, now);
    EXPECT_LE(now, std::chrono::steady_clock::now());
}

TEST(MonotonicTime, ComesFromTheSourceThatIsSet)
{
    EXPECT_EQ(MonotonicTime::setSource(&noon), nullptr);
    EXPECT_EQ(MonotonicTime::now(), noon());
    EXPECT_EQ(MonotonicTime::setSource(nullptr), &noon);
    EXPECT_NE(MonotonicTime::now(), noon());
}

} // namespace
} // namespace tavo::utils
