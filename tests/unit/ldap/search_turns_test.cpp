#include <ldap/private/search_turns.h>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <vector>

namespace tavo::ldap {
namespace {

class SearchTurnsTest : public ::testing::Test
{
protected:
    std::unique_ptr<SearchTurn> take() { return std::make_unique<SearchTurn>(m_turns); }

    /// Waits for a page on a thread of its own.
    static std::future<bool> waitFor(SearchTurn& turn)
    {
        return std::async(std::launch::async, [&turn] { return turn.beginPage(); });
    }

    std::shared_ptr<SearchTurns> m_turns = std::make_shared<SearchTurns>();
};

TEST_F(SearchTurnsTest, letsTheFirstGoAtOnceAndOn)
{
    const auto first = take();
    for (int page = 0; page < 3; ++page) {
        EXPECT_TRUE(first->beginPage());
        first->endPage();
    }
}

TEST_F(SearchTurnsTest, letsTheNextGoWhenTheFirstGivesUp)
{
    const auto first = take();
    const auto second = take();
    const auto third = take();
    EXPECT_TRUE(first->beginPage());
    first->endPage();
    auto secondWaits = waitFor(*second);
    auto thirdWaits = waitFor(*third);
    // Out of order: it was not the third's turn yet, so nothing may come of that for the second.
    third->giveUp();
    EXPECT_FALSE(thirdWaits.get());
    first->giveUp();
    EXPECT_TRUE(secondWaits.get());
}

TEST_F(SearchTurnsTest, lastsFromOnePageToTheNext)
{
    const auto first = take();
    const auto second = take();
    EXPECT_TRUE(first->beginPage());
    first->endPage();
    auto waits = waitFor(*second);
    // Between two pages the second must not slip in.
    EXPECT_TRUE(first->beginPage());
    first->endPage();
    first->giveUp();
    EXPECT_TRUE(waits.get());
}

TEST_F(SearchTurnsTest, endsTheWaitOfOneThatIsGivenUp)
{
    const auto first = take();
    const auto second = take();
    auto waits = waitFor(*second);
    second->giveUp();
    EXPECT_FALSE(waits.get());
    EXPECT_FALSE(second->beginPage());
    EXPECT_TRUE(first->beginPage());
}

TEST_F(SearchTurnsTest, waitsForAPageOnItsWayOfOneThatGaveUp)
{
    const auto first = take();
    const auto second = take();
    EXPECT_TRUE(first->beginPage());
    first->giveUp();
    auto waits = waitFor(*second);
    first->endPage();
    EXPECT_TRUE(waits.get());
    // Its next page would end the second search at the server.
    EXPECT_FALSE(first->beginPage());
}

TEST_F(SearchTurnsTest, letsNobodyBeginWhileAPageIsOnItsWay)
{
    const auto first = take();
    const auto second = take();
    EXPECT_TRUE(first->beginPage());
    first->giveUp();
    std::atomic<bool> hasCome = false;
    const auto page = std::async(std::launch::async, [&] {
        hasCome = true;
        first->endPage();
    });
    EXPECT_TRUE(second->beginPage());
    EXPECT_TRUE(hasCome);
}

TEST_F(SearchTurnsTest, letsOneThatGaveUpAskForOnePageAtATime)
{
    const auto first = take();
    EXPECT_TRUE(first->beginPage());
    first->giveUp();
    EXPECT_FALSE(first->beginPage());
    first->endPage();
    EXPECT_TRUE(first->beginPage());
}

TEST_F(SearchTurnsTest, letsOneThatGaveUpGoOnWhileItDisturbsNobody)
{
    const auto first = take();
    EXPECT_TRUE(first->beginPage());
    first->endPage();
    first->giveUp();
    EXPECT_TRUE(first->beginPage());
    first->endPage();
    const auto second = take();
    EXPECT_FALSE(first->beginPage());
}

TEST_F(SearchTurnsTest, givesUpWhenItGoes)
{
    auto first = take();
    const auto second = take();
    auto waits = waitFor(*second);
    first.reset();
    EXPECT_TRUE(waits.get());
}

TEST_F(SearchTurnsTest, letsAllGoWhenTheServerAllowsIt)
{
    const auto first = take();
    const auto second = take();
    EXPECT_TRUE(first->beginPage());
    auto waits = waitFor(*second);
    m_turns->allowInterleaving();
    EXPECT_TRUE(waits.get());
    EXPECT_TRUE(take()->beginPage());
    first->giveUp();
    EXPECT_TRUE(first->beginPage());
}

} // namespace
} // namespace tavo::ldap
