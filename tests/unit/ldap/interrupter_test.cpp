#include <ldap/interrupter.h>
#include <ldap/private/wire/interruption.h>

#include <gtest/gtest.h>

#include <poll.h>

#include <memory>
#include <utility>

namespace tavo::ldap {
namespace {

class Counter final : public Interruptible
{
public:
    void interrupt() noexcept override { ++count; }

    int count = 0;
};

bool isReadable(int descriptor)
{
    pollfd waiting{descriptor, POLLIN, 0};
    return poll(&waiting, 1, 0) == 1;
}

TEST(InterrupterTest, IsTheSameInAllCopies)
{
    const Interrupter one;
    const Interrupter copy = one;
    const Interrupter other;
    EXPECT_FALSE(copy.isInterrupted());
    one.interrupt();
    EXPECT_TRUE(copy.isInterrupted());
    EXPECT_FALSE(other.isInterrupted());
}

// Who moves one, as a standard container may, must not be left with one of no use.
TEST(InterrupterTest, IsStillOneAfterAMove)
{
    Interrupter one;
    const Interrupter moved = std::move(one);
    one.interrupt();
    EXPECT_TRUE(moved.isInterrupted());
}

TEST(InterruptionTest, ReachesEveryTargetThatIsThere)
{
    Interruption interruption;
    const auto before = std::make_shared<Counter>();
    auto gone = std::make_shared<Counter>();
    interruption.add(before);
    interruption.add(gone);
    gone.reset();
    EXPECT_FALSE(isReadable(interruption.descriptor()));

    interruption.interrupt();

    EXPECT_EQ(before->count, 1);
    EXPECT_TRUE(isReadable(interruption.descriptor()));
}

TEST(InterruptionTest, ReachesATargetThatComesLate)
{
    Interruption interruption;
    interruption.interrupt();
    const auto late = std::make_shared<Counter>();
    interruption.add(late);
    EXPECT_EQ(late->count, 1);
}

TEST(InterruptionTest, LastsForGood)
{
    Interruption interruption;
    interruption.interrupt();
    interruption.interrupt();
    EXPECT_TRUE(interruption.isInterrupted());
    EXPECT_TRUE(isReadable(interruption.descriptor()));
    EXPECT_TRUE(isReadable(interruption.descriptor()));
}

} // namespace
} // namespace tavo::ldap
