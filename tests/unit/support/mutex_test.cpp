#include "support/assertion_capture.h"
#include <tavo_utils/mutex.h>

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <latch>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace tavo {
namespace {

using Mode = Mutex::RecursionMode;
using testing::ElementsAre;

static_assert(static_cast<int>(Mode::nonRecursive) == 0 && static_cast<int>(Mode::recursive) == 1);
static_assert(!std::is_copy_constructible_v<Mutex> && !std::is_copy_constructible_v<MutexLocker>);
static_assert(!std::is_convertible_v<Mode, Mutex>);

bool otherThreadCanLock(Mutex& mutex)
{
    return std::async(std::launch::async, [&] {
        const bool locked = mutex.tryLock();
        if (locked)
            mutex.unlock();
        return locked;
    }).get();
}

TEST(Mutex, KeepsOtherThreadsOut)
{
    for (const Mode mode : {Mode::nonRecursive, Mode::recursive}) {
        Mutex mutex(mode);
        mutex.lock();
        EXPECT_FALSE(otherThreadCanLock(mutex));
        mutex.unlock();
        EXPECT_TRUE(otherThreadCanLock(mutex));
    }
}

TEST(Mutex, IsFreeAfterAsManyUnlocksAsLocksWhenRecursive)
{
    Mutex mutex(Mode::recursive);
    mutex.lock();
    EXPECT_TRUE(mutex.tryLock());
    mutex.lock();
    mutex.unlock();
    mutex.unlock();
    EXPECT_FALSE(otherThreadCanLock(mutex));
    mutex.unlock();
    EXPECT_TRUE(otherThreadCanLock(mutex));
}

TEST(Mutex, ThrowsInsteadOfWaitingForItselfWhenNotRecursive)
{
    Mutex mutex(Mode::nonRecursive);
    mutex.lock({"here", 1});
    try {
        mutex.lock({"there", 2});
        ADD_FAILURE() << "locked twice";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::resource_deadlock_would_occur);
    }
    EXPECT_FALSE(mutex.tryLock());
    EXPECT_EQ(mutex.holder().line, 1);
    mutex.unlock();
    EXPECT_TRUE(otherThreadCanLock(mutex));
}

void unlockOnAnotherThread(Mutex& mutex)
{
    std::async(std::launch::async, [&] { mutex.unlock(); }).get();
}

TEST(Mutex, ReportsAnUnlockByAThreadThatDoesNotHoldIt)
{
    const test::AssertionCapture assertions;
    Mutex mutex(Mode::recursive);
    mutex.lock({"some/file", 141});
    mutex.lock();
    for (int i = 0; i < 3; ++i)
        unlockOnAnotherThread(mutex);
    const test::AssertionCapture::Failure failure{
        "tavo_utils/mutex", 60, "isHeldByThisThread()", "Held since some/file:141"};
    EXPECT_THAT(assertions.failures(), ElementsAre(failure, failure, failure));

    EXPECT_STREQ(mutex.holder().file, "some/file");
    mutex.unlock();
    EXPECT_EQ(mutex.holder().line, 141) << "still held once";
    EXPECT_FALSE(otherThreadCanLock(mutex));
    mutex.unlock();
    EXPECT_EQ(mutex.holder().line, 0);
    EXPECT_TRUE(otherThreadCanLock(mutex));
}

TEST(Mutex, ReportsAnUnlockWhileNobodyHoldsIt)
{
    for (const Mode mode : {Mode::nonRecursive, Mode::recursive}) {
        const test::AssertionCapture assertions;
        Mutex mutex(mode);
        mutex.unlock();
        mutex.lock({"some/file", 141});
        mutex.unlock();
        mutex.unlock();
        const test::AssertionCapture::Failure failure{
            "tavo_utils/mutex", 60, "isHeldByThisThread()", "Not held"};
        EXPECT_THAT(assertions.failures(), ElementsAre(failure, failure));
        EXPECT_TRUE(otherThreadCanLock(mutex));
    }
}

TEST(Mutex, StaysWithItsHolderWhileOthersUnlockWrongly)
{
    const test::AssertionCapture assertions;
    Mutex mutex(Mode::recursive);
    std::atomic<bool> stop{false};
    int count = 0;
    {
        const std::jthread wrong([&] {
            while (!stop)
                mutex.unlock();
        });
        const auto increment = [&] {
            for (int i = 0; i < 1000; ++i) {
                const MutexLocker outer(mutex, {"some/file", 141});
                const MutexLocker inner(mutex);
                count += mutex.holder().line == 141 ? 1 : 0;
            }
        };
        {
            const std::jthread first(increment);
            const std::jthread second(increment);
        }
        stop = true;
    }
    EXPECT_EQ(count, 2000);
    EXPECT_TRUE(otherThreadCanLock(mutex));
}

TEST(Mutex, RemembersWhereItsHolderTookIt)
{
    Mutex mutex(Mode::recursive);
    EXPECT_EQ(mutex.holder().line, 0);
    mutex.lock({"some/file", 141});
    mutex.lock({"other/file", 7});
    mutex.unlock();
    EXPECT_STREQ(mutex.holder().file, "some/file");
    EXPECT_EQ(mutex.holder().line, 141);
    mutex.unlock();
    EXPECT_STREQ(mutex.holder().file, "");
    EXPECT_TRUE(mutex.tryLock({"third/file", 9}));
    EXPECT_EQ(mutex.holder().line, 9);
    mutex.unlock();
}

TEST(Mutex, TellsItsHolderToAThreadThatWaits)
{
    Mutex mutex(Mode::recursive);
    mutex.lock({"some/file", 141});
    const int line = std::async(std::launch::async, [&] { return mutex.holder().line; }).get();
    EXPECT_EQ(line, 141);
    mutex.unlock();
}

TEST(Mutex, MakesChangesVisibleToTheNextHolder)
{
    Mutex mutex(Mode::recursive);
    int count = 0;
    std::latch start(2);
    const auto increment = [&] {
        start.arrive_and_wait();
        for (int i = 0; i < 5000; ++i) {
            const MutexLocker lock(mutex);
            ++count;
        }
    };
    {
        const std::jthread first(increment);
        const std::jthread second(increment);
    }
    EXPECT_EQ(count, 10000);
}

TEST(MutexLocker, UnlocksAtTheEndOfTheScopeOrBefore)
{
    Mutex mutex(Mode::nonRecursive);
    {
        const MutexLocker lock(mutex, {"some/file", 3});
        EXPECT_EQ(mutex.holder().line, 3);
        EXPECT_FALSE(otherThreadCanLock(mutex));
    }
    EXPECT_TRUE(otherThreadCanLock(mutex));
    MutexLocker lock(mutex);
    lock.unlock();
    EXPECT_TRUE(otherThreadCanLock(mutex));
    lock.unlock();
}

TEST(Lockable, GuardsItsValue)
{
    Lockable<std::vector<int>> numbers(Mode::recursive);
    numbers.lock()->push_back(1);
    numbers.lock({"some/file", 5})->push_back(2);
    EXPECT_THAT(*numbers.lock(), ElementsAre(1, 2));

    auto held = numbers.lock();
    std::future<std::size_t> size = std::async(std::launch::async, [&] { return numbers.lock()->size(); });
    held->push_back(3);
    held.unlock();
    EXPECT_EQ(size.get(), 3U);
}

TEST(Lockable, TakesAValueAndReadsItWhenConst)
{
    const Lockable<std::unique_ptr<int>> number(Mode::nonRecursive, std::make_unique<int>(4));
    static_assert(std::is_const_v<std::remove_reference_t<decltype(*number.lock())>>);
    EXPECT_EQ(**number.lock(), 4);
}

TEST(Lockable, HoldsTheMutexAsLongAsTheAccessorThatOwnsIt)
{
    Lockable<int> number(Mode::nonRecursive);
    auto first = number.lock();
    auto second = std::move(first);
    *second = 5;
    EXPECT_THROW((void)number.lock(), std::system_error);
    second.unlock();
    second.unlock();
    EXPECT_EQ(*number.lock(), 5);

    Lockable<int> other(Mode::nonRecursive, 6);
    auto moving = number.lock();
    moving = other.lock();
    auto& same = moving;
    moving = std::move(same);
    EXPECT_EQ(*moving, 6);
    moving.unlock();
    EXPECT_EQ(*number.lock(), 5) << "would throw if the assignment had not given the mutex back";
}

TEST(Lockable, MayBeLockedAgainByItsHolderWhenRecursive)
{
    Lockable<int> number(Mode::recursive);
    const auto outer = number.lock();
    *number.lock() = 3;
    EXPECT_EQ(*outer, 3);
}

std::vector<std::string> observed;

void observe(const Mutex& mutex, SourcePosition position, LockEvent event)
{
    observed.push_back((event == LockEvent::locked ? "locked " : "unlocked ") + std::string(position.file) +
                       ":" + std::to_string(position.line) + (mutex.holder().line == 0 ? " free" : ""));
}

TEST(LockObserver, SeesEveryLockWhileTheMutexIsHeld)
{
    observed.clear();
    Mutex mutex(Mode::recursive);
    EXPECT_EQ(setLockObserver(&observe), nullptr);
    mutex.lock({"a", 1});
    EXPECT_TRUE(mutex.tryLock({"b", 2}));
    mutex.unlock();
    mutex.unlock();
    EXPECT_EQ(setLockObserver(nullptr), &observe);
    mutex.lock({"c", 3});
    mutex.unlock();
    EXPECT_THAT(observed, ElementsAre("locked a:1", "locked b:2", "unlocked a:1", "unlocked a:1"));
}

TEST(LockObserver, SeesNoUnlockThatChangesNothing)
{
    observed.clear();
    const test::AssertionCapture assertions;
    Mutex mutex(Mode::recursive);
    mutex.lock({"a", 1});
    setLockObserver(&observe);
    unlockOnAnotherThread(mutex);
    setLockObserver(nullptr);
    mutex.unlock();
    EXPECT_THAT(observed, testing::IsEmpty());
}

} // namespace
} // namespace tavo
