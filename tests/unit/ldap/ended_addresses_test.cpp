#include <ldap/private/ended_addresses.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <set>

namespace tavo::ldap {
namespace {

/// Blocks that are taken.
using Blocks = std::set<const void*>;

template <class T>
struct BlockCounter
{
    using value_type = T;

    explicit BlockCounter(Blocks& taken)
        : blocks(&taken)
    {}
    template <class Other>
    BlockCounter(const BlockCounter<Other>& other)
        : blocks(other.blocks)
    {}

    T* allocate(std::size_t count)
    {
        T* const block = std::allocator<T>().allocate(count);
        blocks->insert(block);
        return block;
    }
    void deallocate(T* block, std::size_t count)
    {
        blocks->erase(block);
        std::allocator<T>().deallocate(block, count);
    }
    friend bool operator==(const BlockCounter&, const BlockCounter&) = default;

    Blocks* blocks;
};

class EndedAddressesTest : public ::testing::Test
{
protected:
    std::shared_ptr<int> make() { return std::allocate_shared<int>(BlockCounter<int>(blocks), 0); }

    /// Makes an object, and ends it.
    const void* end()
    {
        addresses.makeRoomFor(1);
        const auto object = make();
        addresses.add(object);
        return object.get();
    }

    Blocks blocks;
    EndedAddresses addresses;
};

TEST_F(EndedAddressesTest, AreTakenUntilSoManyMoreHaveEnded)
{
    std::set<const void*> given;
    for (std::size_t i = 0; i <= EndedAddresses::kKept; ++i)
        given.insert(end());

    EXPECT_EQ(given.size(), EndedAddresses::kKept + 1);
    EXPECT_EQ(blocks.size(), EndedAddresses::kKept);
}

TEST_F(EndedAddressesTest, AreGivenBackInTheOrderOfTheEnds)
{
    const auto begunFirst = make();
    const void* const blockOfFirst = *blocks.begin();
    auto begunSecond = make();
    addresses.makeRoomFor(2);
    addresses.add(begunSecond);
    addresses.add(begunFirst);
    begunSecond.reset();
    const std::size_t inUse = 2;
    EXPECT_EQ(blocks.size(), inUse);

    for (std::size_t i = 0; i < EndedAddresses::kKept - inUse; ++i)
        end();
    EXPECT_EQ(blocks.size(), EndedAddresses::kKept);
    end();
    EXPECT_EQ(blocks.size(), EndedAddresses::kKept) << "the one that ended first is kept";
    end();

    // Of the other only the object keeps it.
    EXPECT_EQ(blocks.size(), EndedAddresses::kKept + 1);
    EXPECT_EQ(blocks.count(blockOfFirst), 1U);
}

TEST_F(EndedAddressesTest, KeepNoObjectAlive)
{
    struct Ending
    {
        explicit Ending(bool& ended)
            : hasEnded(ended)
        {}
        ~Ending() { hasEnded = true; }
        bool& hasEnded;
    };
    bool hasEnded = false;
    auto object = std::allocate_shared<Ending>(BlockCounter<Ending>(blocks), hasEnded);
    addresses.makeRoomFor(1);
    addresses.add(object);

    object.reset();

    EXPECT_TRUE(hasEnded);
    EXPECT_EQ(blocks.size(), 1U);
}

} // namespace
} // namespace tavo::ldap
