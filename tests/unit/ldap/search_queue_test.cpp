#include <ldap/private/search_queue.h>

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <atomic>
#include <future>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

namespace tavo::ldap {
namespace {

class SearchQueueTest : public ::testing::Test
{
protected:
    std::unique_ptr<SearchTicket> take() { return std::make_unique<SearchTicket>(m_queue); }

    /// Waits for a page on a thread of its own.
    static std::future<bool> waitFor(SearchTicket& ticket)
    {
        return std::async(std::launch::async, [&ticket] { return ticket.beginPage(); });
    }

    std::shared_ptr<SearchQueue> m_queue = std::make_shared<SearchQueue>();
};

TEST_F(SearchQueueTest, LetsTheFirstRunAtOnceAndContinue)
{
    const auto first = take();
    for (int page = 0; page < 3; ++page) {
        EXPECT_TRUE(first->beginPage());
        first->endPage();
    }
}

TEST_F(SearchQueueTest, LetsTheNextRunWhenTheFirstGivesUp)
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

TEST_F(SearchQueueTest, LastsFromOnePageToTheNext)
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

TEST_F(SearchQueueTest, EndsTheWaitOfOneThatIsGivenUp)
{
    const auto first = take();
    const auto second = take();
    auto waits = waitFor(*second);
    second->giveUp();
    EXPECT_FALSE(waits.get());
    EXPECT_FALSE(second->beginPage());
    EXPECT_TRUE(first->beginPage());
}

TEST_F(SearchQueueTest, WaitsForAPageOnItsWayOfOneThatGaveUp)
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

TEST_F(SearchQueueTest, LetsNobodyBeginWhileAPageIsOnItsWay)
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

TEST_F(SearchQueueTest, LetsOneThatGaveUpAskForOnePageAtATime)
{
    const auto first = take();
    EXPECT_TRUE(first->beginPage());
    first->giveUp();
    EXPECT_FALSE(first->beginPage());
    first->endPage();
    EXPECT_TRUE(first->beginPage());
}

TEST_F(SearchQueueTest, LetsOneThatGaveUpGoOnWhileItDisturbsNobody)
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

TEST_F(SearchQueueTest, GivesUpWhenDestroyed)
{
    auto first = take();
    const auto second = take();
    auto waits = waitFor(*second);
    first.reset();
    EXPECT_TRUE(waits.get());
}

TEST_F(SearchQueueTest, LetsAllRunWhenTheServerAllowsIt)
{
    const auto first = take();
    const auto second = take();
    EXPECT_TRUE(first->beginPage());
    auto waits = waitFor(*second);
    m_queue->allowInterleaving();
    EXPECT_TRUE(waits.get());
    EXPECT_TRUE(take()->beginPage());
    first->giveUp();
    EXPECT_TRUE(first->beginPage());
}

/// How often the calling thread has waited so far.
long waitsOfThisThread()
{
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
}

// Hundreds may wait on one connection, and a page must not cost each of them.
TEST_F(SearchQueueTest, WakesNobodyButTheSearchWhoseTurnItIs)
{
    constexpr int kPages = 2000;
    const auto first = take();
    std::vector<std::unique_ptr<SearchTicket>> others;
    std::vector<std::future<long>> waits;
    std::latch begun(4);
    for (int i = 0; i < 4; ++i) {
        others.push_back(take());
        waits.push_back(std::async(std::launch::async, [&begun, ticket = others.back().get()] {
            const long before = waitsOfThisThread();
            begun.count_down();
            ticket->beginPage();
            const long waited = waitsOfThisThread() - before;
            ticket->endPage();
            ticket->giveUp();
            return waited;
        }));
    }
    begun.wait();

    for (int page = 0; page < kPages; ++page) {
        first->beginPage();
        first->endPage();
        // The others get a chance to wake.
        std::this_thread::yield();
    }
    first->giveUp();

    for (auto& waited : waits) {
        EXPECT_LT(waited.get(), kPages / 20);
    }
}

} // namespace
} // namespace tavo::ldap
