#include <tavo_utils/async_operation_guard.h>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <optional>
#include <thread>
#include <type_traits>
#include <vector>

namespace tavo::utils {
namespace {

using SharedGuard = AsyncOperationGuard::SharedGuard;
using Lock = AsyncOperationGuard::Lock;

static_assert(!std::is_copy_constructible_v<Lock> && std::is_nothrow_move_constructible_v<Lock>);
static_assert(std::is_copy_constructible_v<SharedGuard>);
static_assert(!std::is_copy_constructible_v<AsyncOperationGuard>);

void waitUntilInvalid(const SharedGuard& guard)
{
    while (guard.lock())
        std::this_thread::yield();
}

TEST(AsyncOperationGuard, LocksWhileTheOwnerExists)
{
    const AsyncOperationGuard guard;
    EXPECT_TRUE(guard.sharedGuard().lock());
}

TEST(AsyncOperationGuard, RefusesAfterTheOwnerIsGone)
{
    std::optional<AsyncOperationGuard> owner(std::in_place);
    const SharedGuard shared = owner->sharedGuard();
    const SharedGuard copy = shared;
    owner.reset();
    EXPECT_FALSE(shared.lock());
    EXPECT_FALSE(copy.lock());
}

TEST(AsyncOperationGuard, RefusesAfterInvalidationEvenThroughNewSharedGuards)
{
    AsyncOperationGuard owner;
    owner.invalidate();
    owner.invalidate();
    EXPECT_FALSE(owner.sharedGuard().lock());
}

TEST(AsyncOperationGuard, RefusesThroughASharedGuardOfNothing)
{
    EXPECT_FALSE(SharedGuard().lock());
    EXPECT_FALSE(Lock());
}

TEST(AsyncOperationGuard, NestsOnOneThreadAndIsHeldByManyAtOnce)
{
    const AsyncOperationGuard owner;
    const Lock outer = owner.sharedGuard().lock();
    const Lock inner = owner.sharedGuard().lock();
    EXPECT_TRUE(outer && inner);
    bool other = false;
    std::jthread([&] { other = static_cast<bool>(owner.sharedGuard().lock()); }).join();
    EXPECT_TRUE(other);
}

TEST(AsyncOperationGuard, DoesNotWaitForTheThreadThatInvalidates)
{
    std::optional<AsyncOperationGuard> owner(std::in_place);
    const SharedGuard shared = owner->sharedGuard();
    const Lock outer = shared.lock();
    const Lock inner = shared.lock();
    owner.reset();
    EXPECT_TRUE(outer && inner);
    EXPECT_FALSE(shared.lock());
}

TEST(AsyncOperationGuard, WaitsForALockOfAnotherThread)
{
    AsyncOperationGuard owner;
    const SharedGuard shared = owner.sharedGuard();
    std::promise<void> locked;
    std::promise<void> mayRelease;
    std::atomic<bool> released = false;
    std::jthread holder([&] {
        Lock lock = shared.lock();
        Lock nested = shared.lock();
        locked.set_value();
        mayRelease.get_future().wait();
        nested.unlock();
        released = true;
    });
    locked.get_future().wait();

    std::future<bool> sawRelease = std::async(std::launch::async, [&] {
        owner.invalidate();
        return released.load();
    });
    waitUntilInvalid(shared);
    mayRelease.set_value();
    EXPECT_TRUE(sawRelease.get());
}

TEST(AsyncOperationGuard, MakesASecondInvalidationOnAnotherThreadWaitToo)
{
    AsyncOperationGuard owner;
    const SharedGuard shared = owner.sharedGuard();
    std::promise<void> locked;
    std::promise<void> mayRelease;
    std::atomic<bool> released = false;
    std::jthread holder([&] {
        const Lock lock = shared.lock();
        locked.set_value();
        mayRelease.get_future().wait();
        released = true;
    });
    locked.get_future().wait();
    const auto invalidate = [&] {
        owner.invalidate();
        return released.load();
    };
    std::future<bool> first = std::async(std::launch::async, invalidate);
    waitUntilInvalid(shared);
    std::future<bool> second = std::async(std::launch::async, invalidate);
    mayRelease.set_value();
    EXPECT_TRUE(first.get());
    EXPECT_TRUE(second.get());
}

TEST(AsyncOperationGuard, MovesTheHoldWithTheLock)
{
    AsyncOperationGuard owner;
    Lock first = owner.sharedGuard().lock();
    Lock second = std::move(first);
    EXPECT_FALSE(first); // NOLINT(bugprone-use-after-move): what is tested
    EXPECT_TRUE(second);
    first = std::move(second);
    Lock& same = first;
    first = std::move(same);
    EXPECT_TRUE(first);
    first.unlock();
    first.unlock();
    EXPECT_FALSE(first);
    std::jthread([&] { owner.invalidate(); }).join(); // would wait for ever for a hold that was left behind
}

TEST(AsyncOperationGuard, GivesUpTheOldHoldWhenALockIsAssignedTo)
{
    AsyncOperationGuard old;
    const AsyncOperationGuard young;
    Lock lock = old.sharedGuard().lock();
    lock = young.sharedGuard().lock();
    EXPECT_TRUE(lock);
    std::jthread([&] { old.invalidate(); }).join();
    EXPECT_FALSE(old.sharedGuard().lock());
}

// The payload has no synchronisation of its own: ThreadSanitizer sees every use after the owner's end.
struct Owner
{
    ~Owner() { guard.invalidate(); }
    AsyncOperationGuard guard;
    std::atomic<int> uses{0};
};

TEST(AsyncOperationGuard, NeverLetsACallbackTouchADestroyedOwner)
{
    for (int round = 0; round < 200; ++round) {
        auto owner = std::make_unique<Owner>();
        std::latch started(3);
        std::vector<std::jthread> callbacks;
        for (int i = 0; i < 3; ++i) {
            callbacks.emplace_back([&started, target = owner.get(), shared = owner->guard.sharedGuard()] {
                started.count_down();
                while (const Lock lock = shared.lock())
                    ++target->uses;
            });
        }
        started.wait();
        owner.reset();
    }
}

} // namespace
} // namespace tavo::utils
