#include <tavo_utils/move_only_func.h>

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace tavo::utils {
namespace {

using Action = MoveOnlyFunc<void()>;

static_assert(!std::is_copy_constructible_v<Action> && !std::is_copy_assignable_v<Action>);
static_assert(std::is_nothrow_move_constructible_v<Action> && std::is_nothrow_move_assignable_v<Action>);
static_assert(std::is_nothrow_default_constructible_v<Action>);
static_assert(!std::is_constructible_v<Action, int>);
static_assert(!std::is_constructible_v<MoveOnlyFunc<int()>, void (*)()>);
static_assert(!std::is_convertible_v<Action, bool>, "only where a condition is asked for");

// Says through a flag whether it is alive: a target that must outlive the call that destroys its function.
class Token
{
public:
    explicit Token(bool& alive)
        : m_alive(&alive)
    {
        alive = true;
    }
    ~Token() { *m_alive = false; }
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;

private:
    bool* m_alive;
};

int twice(int number) { return 2 * number; }

struct Account
{
    int balance = 0;
    int add(int amount) { return balance += amount; }
};

TEST(MoveOnlyFunc, ThrowsWhenItIsEmpty)
{
    EXPECT_THROW(Action()(), std::bad_function_call);
    EXPECT_THROW(Action(nullptr)(), std::bad_function_call);
    const MoveOnlyFunc<int(int)> withResult;
    EXPECT_THROW(withResult(1), std::bad_function_call);
}

TEST(MoveOnlyFunc, IsEmptyWhenMadeFromNothingCallable)
{
    EXPECT_FALSE(MoveOnlyFunc<int(int)>(static_cast<int (*)(int)>(nullptr)));
    EXPECT_FALSE(MoveOnlyFunc<int(int)>(std::function<int(int)>()));
    EXPECT_FALSE(MoveOnlyFunc<long(int)>(MoveOnlyFunc<int(int)>()));
    EXPECT_FALSE(MoveOnlyFunc<int(Account&, int)>(static_cast<int (Account::*)(int)>(nullptr)));
}

TEST(MoveOnlyFunc, ComparesWithNullptr)
{
    Action action = [] {};
    EXPECT_TRUE(action != nullptr);
    EXPECT_FALSE(nullptr == action);
    action = nullptr;
    EXPECT_TRUE(action == nullptr);
    EXPECT_FALSE(action);
}

TEST(MoveOnlyFunc, CallsEveryKindOfCallable)
{
    Account account;
    EXPECT_EQ(MoveOnlyFunc<int(int)>(twice)(3), 6);
    EXPECT_EQ(MoveOnlyFunc<int(int)>(&twice)(3), 6);
    EXPECT_EQ(MoveOnlyFunc<int(int)>(std::function<int(int)>(twice))(3), 6);
    EXPECT_EQ(MoveOnlyFunc<long(int)>(MoveOnlyFunc<int(int)>(twice))(3), 6L);
    EXPECT_EQ(MoveOnlyFunc<int(Account&, int)>(&Account::add)(account, 5), 5);
    EXPECT_EQ(MoveOnlyFunc<int(const Account&)>(&Account::balance)(account), 5);
    EXPECT_EQ(MoveOnlyFunc<int()>([number = std::make_unique<int>(4)] { return *number; })(), 4);
}

TEST(MoveOnlyFunc, DiscardsTheResultWhenItsOwnIsVoid)
{
    int seen = 0;
    const MoveOnlyFunc<void(int)> func = [&](int number) { return seen = number; };
    func(7);
    EXPECT_EQ(seen, 7);
}

TEST(MoveOnlyFunc, KeepsTheStateOfAMutableTargetAlsoWhenConst)
{
    const MoveOnlyFunc<int()> next = [number = 0]() mutable { return ++number; };
    EXPECT_EQ(next(), 1);
    EXPECT_EQ(next(), 2);
}

TEST(MoveOnlyFunc, ForwardsArgumentsAsDeclared)
{
    std::string text = "a";
    MoveOnlyFunc<std::string&(std::string&)> reference = [](std::string& s) -> std::string& {
        return s += "b";
    };
    EXPECT_EQ(&reference(text), &text);
    EXPECT_EQ(text, "ab");

    MoveOnlyFunc<int(std::unique_ptr<int>)> byValue = [](std::unique_ptr<int> number) { return *number; };
    EXPECT_EQ(byValue(std::make_unique<int>(8)), 8);

    MoveOnlyFunc<void(std::unique_ptr<int> &&)> untouched = [](std::unique_ptr<int>&&) {};
    auto kept = std::make_unique<int>(9);
    untouched(std::move(kept));
    EXPECT_TRUE(kept); // NOLINT(bugprone-use-after-move): the target took nothing
}

TEST(MoveOnlyFunc, LetsTheTargetsExceptionThrough)
{
    const Action action = [] { throw std::runtime_error("target"); };
    EXPECT_THROW(action(), std::runtime_error);
}

struct Immovable
{
    explicit Immovable(const void*& at)
        : address(&at)
    {}
    Immovable(const Immovable& other)
        : address(other.address)
    {}
    void operator()() const { *address = this; }
    const void** address;
};

TEST(MoveOnlyFunc, NeverMovesItsTarget)
{
    const void* address = nullptr;
    Action first = Immovable(address);
    first();
    const void* const before = address;
    Action second = std::move(first);
    Action third;
    third = std::move(second);
    third();
    EXPECT_EQ(address, before);
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): what is tested
    EXPECT_FALSE(second); // NOLINT(bugprone-use-after-move): what is tested
}

TEST(MoveOnlyFunc, DestroysItsTargetWhenEmptiedAssignedOrGone)
{
    bool isAlive = false;
    const auto make = [&] { return Action([token = std::make_unique<Token>(isAlive)] {}); };
    {
        const Action action = make();
        EXPECT_TRUE(isAlive);
    }
    EXPECT_FALSE(isAlive);
    Action action = make();
    action = nullptr;
    EXPECT_FALSE(isAlive);
    action = make();
    action = [] {};
    EXPECT_FALSE(isAlive);
}

// A function whose target does something to that function while it runs, and then looks whether it is alive.
struct SelfChanging
{
    template <class Change>
    explicit SelfChanging(Change change)
    {
        func.emplace([this, change, token = std::make_unique<Token>(isAlive)] {
            change(*this);
            wasAliveAfterChange = isAlive;
        });
    }
    bool isAlive = false;
    bool wasAliveAfterChange = false;
    std::optional<Action> func;
    Action other;
};

TEST(MoveOnlyFunc, KeepsARunningTargetWhenItIsReset)
{
    SelfChanging object([](SelfChanging& self) { *self.func = nullptr; });
    (*object.func)();
    EXPECT_TRUE(object.wasAliveAfterChange);
    EXPECT_FALSE(object.isAlive);
}

TEST(MoveOnlyFunc, KeepsARunningTargetWhenItIsAssigned)
{
    SelfChanging object([](SelfChanging& self) { *self.func = [] {}; });
    (*object.func)();
    EXPECT_TRUE(object.wasAliveAfterChange);
    EXPECT_FALSE(object.isAlive);
    EXPECT_TRUE(*object.func);
}

TEST(MoveOnlyFunc, KeepsARunningTargetWhenItIsDestroyed)
{
    SelfChanging object([](SelfChanging& self) { self.func.reset(); });
    (*object.func)();
    EXPECT_TRUE(object.wasAliveAfterChange);
    EXPECT_FALSE(object.isAlive);
}

TEST(MoveOnlyFunc, KeepsARunningTargetWhenItIsMoved)
{
    SelfChanging object([](SelfChanging& self) { self.other = std::move(*self.func); });
    (*object.func)();
    EXPECT_TRUE(object.wasAliveAfterChange);
    EXPECT_TRUE(object.isAlive);
    EXPECT_TRUE(object.other);
}

TEST(MoveOnlyFunc, KeepsARunningTargetThroughACallOfItself)
{
    int depth = 0;
    bool isAlive = false;
    Action action;
    action = [&, token = std::make_unique<Token>(isAlive)] {
        if (++depth < 3)
            action();
        action = nullptr;
        EXPECT_TRUE(isAlive);
    };
    action();
    EXPECT_EQ(depth, 3);
    EXPECT_FALSE(isAlive);
}

} // namespace
} // namespace tavo::utils
