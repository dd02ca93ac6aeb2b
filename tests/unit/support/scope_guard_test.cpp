#include <tavo_utils/scope_guard.h>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <type_traits>

namespace tavo::utils {
namespace {

TEST(ScopeGuard, RunsWhenTheScopeIsLeft)
{
    int runs = 0;
    {
        const ScopeGuard guard([&] { ++runs; });
        EXPECT_EQ(runs, 0);
        static_assert(!std::is_copy_constructible_v<decltype(guard)>);
        static_assert(std::is_nothrow_destructible_v<decltype(guard)>);
    }
    EXPECT_EQ(runs, 1);
}

TEST(ScopeGuard, RunsWhenTheScopeIsLeftByAnException)
{
    int runs = 0;
    EXPECT_THROW(
        {
            const ScopeGuard guard([&] { ++runs; });
            throw std::runtime_error("left");
        },
        std::runtime_error);
    EXPECT_EQ(runs, 1);
}

TEST(ScopeGuard, DoesNotRunOnceDismissed)
{
    int runs = 0;
    {
        ScopeGuard guard([&] { ++runs; });
        guard.dismiss();
    }
    EXPECT_EQ(runs, 0);
}

TEST(ScopeGuard, TakesAMoveOnlyCleanUp)
{
    int seen = 0;
    {
        const ScopeGuard guard([&, number = std::make_unique<int>(3)] { seen = *number; });
    }
    EXPECT_EQ(seen, 3);
}

} // namespace
} // namespace tavo::utils
