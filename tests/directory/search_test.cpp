// Blocking and paged searches on a real server.
#include "directory_test.h"
#include "support/assertion_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

namespace tavo::ldap {
namespace {

using test::operator""_s;
using test::Entries;
using test::peopleSearch;
using test::qt;
using test::Slapd;
using test::urlOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class SlapdSearchTest : public ::testing::Test
{
protected:
    explicit SlapdSearchTest(test::SlapdOptions options = {.ldif = test::people(25)})
        : m_slapd(std::move(options))
        , m_session(std::make_unique<Session>(urlOf(m_slapd.url()), false, false))
    {}

    static std::vector<QString> uids(const std::vector<SearchEntry>& entries)
    {
        std::vector<QString> uids;
        for (const SearchEntry& entry : entries) {
            uids.push_back(entry.getAttributeFirstValue("uid"_s));
        }
        return uids;
    }

    static std::vector<QString> expectedUids(int count)
    {
        std::vector<QString> uids;
        for (int i = 0; i < count; ++i) {
            uids.push_back(QStringLiteral("u%1").arg(i));
        }
        return uids;
    }

    test::ThreadsEndHere m_threads;
    Slapd m_slapd;
    std::unique_ptr<Session> m_session;
};

TEST_F(SlapdSearchTest, ReadsAllEntriesInOneRequest)
{
    const auto entries = m_session->simpleSearch(peopleSearch());
    EXPECT_EQ(uids(entries), expectedUids(25));
    EXPECT_EQ(entries.front().dn, "uid=u0,ou=people,dc=example,dc=test"_s);
}

TEST_F(SlapdSearchTest, GivesARequestedAttributeThatTheEntryLacksWithoutValues)
{
    auto params = peopleSearch();
    params.attributes = {"telephoneNumber", "UID"};
    params.filter = "(uid=u1)"_s;
    const auto entries = m_session->simpleSearch(params);
    ASSERT_THAT(entries, SizeIs(1));
    ASSERT_THAT(entries[0].attributes, SizeIs(2));
    EXPECT_EQ(entries[0].attributes[0].name, "telephoneNumber"_s);
    EXPECT_TRUE(entries[0].attributes[0].empty());
    // Under the spelling that was asked for, which need not be the server's.
    EXPECT_EQ(entries[0].attributes[1].toString(), "UID: u1"_s);
}

TEST_F(SlapdSearchTest, GivesEveryAttributeInTheServersSpellingWhenNoneIsRequested)
{
    const auto entries =
        m_session->simpleSearch({"uid=u1,ou=people,dc=example,dc=test"_s, QString(), {}, SearchScope::base});
    ASSERT_THAT(entries, SizeIs(1));
    EXPECT_EQ(entries[0].getAttributeFirstValue("objectClass"_s), "inetOrgPerson"_s);
    EXPECT_EQ(entries[0].getAttributeFirstValue("mail"_s), "u1@Example.TEST"_s);
}

TEST_F(SlapdSearchTest, SearchesTheBaseAloneWithAScopeThatDoesNotExist)
{
    const test::AssertionCapture assertions;
    auto params = peopleSearch();
    params.filter.clear();
    params.scope = static_cast<SearchScope>(3);
    EXPECT_THAT(m_session->simpleSearch(params), SizeIs(1));
    EXPECT_THAT(assertions.failures(),
        ElementsAre(test::AssertionCapture::Failure{"ldap/search_context", 24, "false", ""}));
}

TEST_F(SlapdSearchTest, ThrowsTheServersCodeForABaseThatDoesNotExist)
{
    const test::LogCapture log;
    try {
        m_session->simpleSearch({"ou=nowhere,dc=example,dc=test"_s, QString(), {}, SearchScope::subtree});
        FAIL() << "nothing thrown";
    } catch (const BaseError& error) {
        EXPECT_EQ(error.ldapCode, 32);
        EXPECT_EQ(error.context, "ldap_search_ext_s"_s);
    }
    EXPECT_TRUE(log.contains("matched DN [dc=example,dc=test]"));
}

TEST_F(SlapdSearchTest, ThrowsForAMalformedFilter)
{
    auto params = peopleSearch();
    params.filter = "(((("_s;
    try {
        m_session->simpleSearch(params);
        FAIL() << "nothing thrown";
    } catch (const BaseError& error) {
        EXPECT_EQ(error.ldapCode, -7);
    }
    const auto result = m_session->search(params, 10);
    EXPECT_EQ(std::get<Result>(result), Result::noSuchObject);
}

TEST_F(SlapdSearchTest, DeliversFullPagesAsTheyComeAndTheRestAtTheEnd)
{
    Entries entries;
    m_session->asyncSearch(peopleSearch(), entries.handler(), 10);
    EXPECT_EQ(entries.waitForEnd(), Result::ok);
    EXPECT_THAT(entries.results(), ElementsAre(Result::moreResults, Result::moreResults, Result::ok));
    const auto deliveries = entries.all();
    EXPECT_THAT(deliveries[0].records, SizeIs(10));
    EXPECT_THAT(deliveries[1].records, SizeIs(10));
    EXPECT_THAT(deliveries[2].records, SizeIs(5));
    EXPECT_EQ(uids(entries.records()), expectedUids(25));
    EXPECT_NE(deliveries[0].thread, std::this_thread::get_id());
}

TEST_F(SlapdSearchTest, DeliversOnePageOnceWhenEverythingFits)
{
    for (const int pageSize : {25, 26, 1000}) {
        Entries entries;
        m_session->asyncSearch(peopleSearch(), entries.handler(), pageSize);
        EXPECT_EQ(entries.waitForEnd(), Result::ok);
        EXPECT_THAT(entries.results(), ElementsAre(Result::ok)) << pageSize;
        EXPECT_THAT(entries.records(), SizeIs(25)) << pageSize;
    }
}

TEST_F(SlapdSearchTest, DeliversNothingButTheEndWhenNothingMatches)
{
    Entries entries;
    auto params = peopleSearch();
    params.filter = "(uid=nobody)"_s;
    m_session->asyncSearch(params, entries.handler(), 10);
    EXPECT_EQ(entries.waitForEnd(), Result::ok);
    EXPECT_THAT(entries.records(), IsEmpty());
}

TEST_F(SlapdSearchTest, RefusesAPageSizeThatIsNotPositive)
{
    for (const int pageSize : {0, -1}) {
        const test::AssertionCapture assertions;
        Entries entries;
        m_session->asyncSearch(peopleSearch(), entries.handler(), pageSize);
        ASSERT_THAT(entries.results(), ElementsAre(Result::ok));
        EXPECT_THAT(entries.records(), IsEmpty());
        EXPECT_EQ(entries.all().front().thread, std::this_thread::get_id());
        EXPECT_THAT(assertions.failures(),
            ElementsAre(test::AssertionCapture::Failure{"ldap/search_context", 186, "pageSize > 0", ""}));
    }
}

TEST_F(SlapdSearchTest, WaitsForAllPages)
{
    const auto result = m_session->search(peopleSearch(), 10);
    EXPECT_EQ(uids(std::get<std::vector<SearchEntry>>(result)), expectedUids(25));
    EXPECT_THAT(std::get<std::vector<SearchEntry>>(m_session->search(peopleSearch(), 0)), IsEmpty());
}

TEST_F(SlapdSearchTest, ReportsTheServersFailureAsAResult)
{
    const auto result =
        m_session->search({"ou=nowhere,dc=example,dc=test"_s, QString(), {}, SearchScope::subtree}, 10);
    EXPECT_EQ(std::get<Result>(result), Result::noSuchObject);
}

TEST_F(SlapdSearchTest, CallsNoHandlerOnceItsSearchIsForgotten)
{
    m_slapd.suspend();
    Entries forgotten;
    SearchContext* context = m_session->asyncSearch(peopleSearch(), forgotten.handler(), 10);
    m_session->stopAsyncSearch(context);
    m_session->stopAsyncSearch(context);
    m_slapd.resume();
    // Behind the forgotten one on the same connection, so this one's end comes after.
    EXPECT_THAT(std::get<std::vector<SearchEntry>>(m_session->search(peopleSearch(), 10)), SizeIs(25));
    EXPECT_THAT(forgotten.all(), IsEmpty());
}

TEST_F(SlapdSearchTest, CancelsItsRunningSearchesWhenTheSessionGoes)
{
    m_slapd.suspend();
    Entries first;
    Entries second;
    m_session->asyncSearch(peopleSearch(), first.handler(), 10);
    m_session->asyncSearch(peopleSearch(), second.handler(), 10);
    m_session.reset();
    EXPECT_THAT(first.results(), ElementsAre(Result::cancelled));
    EXPECT_THAT(second.results(), ElementsAre(Result::cancelled));
    EXPECT_EQ(first.all().front().thread, std::this_thread::get_id());
    m_slapd.resume();
}

TEST_F(SlapdSearchTest, CompletesTwoPagedSearchesOnOneConnection)
{
    for (int round = 0; round < 20; ++round) {
        Entries first;
        Entries second;
        Entries third;
        m_session->asyncSearch(peopleSearch(), first.handler(), 2);
        m_session->asyncSearch(peopleSearch(), second.handler(), 3);
        m_session->asyncSearch(peopleSearch(), third.handler(), 4);
        EXPECT_EQ(first.waitForEnd(), Result::ok);
        EXPECT_EQ(second.waitForEnd(), Result::ok);
        EXPECT_EQ(third.waitForEnd(), Result::ok);
        EXPECT_THAT(first.records(), SizeIs(25));
        EXPECT_THAT(second.records(), SizeIs(25));
        EXPECT_THAT(third.records(), SizeIs(25));
    }
}

TEST_F(SlapdSearchTest, GoesOnWithTheNextSearchWhenTheOneBeforeIsForgotten)
{
    for (int round = 0; round < 50; ++round) {
        Entries next;
        std::promise<void> nextWaits;
        // The next search starts while the first one certainly runs: a search's address means it only so
        // long.
        SearchContext* const forgotten = m_session->asyncSearch(
            peopleSearch(),
            [&, calls = 0](Result, const std::vector<SearchEntry>&) mutable {
                if (++calls == 1) {
                    m_session->asyncSearch(peopleSearch(), next.handler(), 2);
                    nextWaits.set_value();
                }
            },
            1);
        nextWaits.get_future().get();
        m_session->stopAsyncSearch(forgotten);
        ASSERT_EQ(next.waitForEnd(), Result::ok) << "in round " << round;
        ASSERT_THAT(next.records(), SizeIs(25));
    }
}

TEST_F(SlapdSearchTest, LetsAHandlerForgetItsOwnSearchFromAnIntermediateCall)
{
    std::promise<void> forgotten;
    std::promise<SearchContext*> started;
    auto context = started.get_future().share();
    int calls = 0;
    started.set_value(m_session->asyncSearch(
        peopleSearch(),
        [&, canary = std::make_unique<int>(7)](Result, const std::vector<SearchEntry>&) {
            ++calls;
            m_session->stopAsyncSearch(context.get());
            // The handler is being dropped, but lives until it returns.
            EXPECT_EQ(*canary, 7);
            forgotten.set_value();
        },
        10));
    forgotten.get_future().get();
    EXPECT_THAT(std::get<std::vector<SearchEntry>>(m_session->search(peopleSearch(), 10)), SizeIs(25));
    EXPECT_EQ(calls, 1);
}

TEST_F(SlapdSearchTest, LetsAHandlerStartAnotherSearchFromAnyCall)
{
    Entries fromIntermediate;
    Entries fromFinal;
    Entries first;
    m_session->asyncSearch(
        peopleSearch(),
        [&, calls = 0](Result result, std::vector<SearchEntry> page) mutable {
            if (++calls == 1) {
                m_session->asyncSearch(peopleSearch(), fromIntermediate.handler(), 10);
            }
            if (result != Result::moreResults) {
                m_session->asyncSearch(peopleSearch(), fromFinal.handler(), 10);
            }
            first.add(result, std::move(page));
        },
        10);
    EXPECT_EQ(first.waitForEnd(), Result::ok);
    EXPECT_EQ(fromIntermediate.waitForEnd(), Result::ok);
    EXPECT_EQ(fromFinal.waitForEnd(), Result::ok);
    EXPECT_THAT(first.records(), SizeIs(25));
    EXPECT_THAT(fromIntermediate.records(), SizeIs(25));
    EXPECT_THAT(fromFinal.records(), SizeIs(25));
}

TEST_F(SlapdSearchTest, LetsAHandlerSearchAndWaitInItsFinalCall)
{
    std::promise<std::size_t> found;
    m_session->asyncSearch(
        peopleSearch(),
        [&](Result result, const std::vector<SearchEntry>&) {
            if (result == Result::ok) {
                found.set_value(
                    std::get<std::vector<SearchEntry>>(m_session->search(peopleSearch(), 10)).size());
            }
        },
        10);
    EXPECT_EQ(found.get_future().get(), 25U);
}

TEST_F(SlapdSearchTest, LetsAHandlerDestroyTheSessionInItsFinalCall)
{
    std::promise<void> destroyed;
    Entries other;
    m_session->asyncSearch(
        peopleSearch(),
        [&](Result result, const std::vector<SearchEntry>&) {
            if (result == Result::ok) {
                m_session.reset();
                destroyed.set_value();
            }
        },
        10);
    destroyed.get_future().get();
    EXPECT_EQ(m_session, nullptr);
}

TEST_F(SlapdSearchTest, LeavesNoThreadAndNoDescriptorBehind)
{
    const auto searchAndForget = [&] {
        const auto session = std::make_unique<Session>(urlOf(m_slapd.url()), false, false);
        for (int i = 0; i < 10; ++i) {
            session->search(peopleSearch(), 10);
            Entries entries;
            session->asyncSearch(peopleSearch(), entries.handler(), 5);
            entries.waitForEnd();
        }
    };
    searchAndForget();
    // A search's thread makes the final call and then has its connection to close.
    const test::NothingIsLeft nothingIsLeft;
    for (int i = 0; i < 10; ++i) {
        searchAndForget();
    }
}

class LimitedSearchTest : public SlapdSearchTest
{
protected:
    LimitedSearchTest()
        : SlapdSearchTest({.ldif = test::people(25), .databaseLines = {"limits * size.soft=20 size.hard=20"}})
    {}
};

TEST_F(LimitedSearchTest, ThrowsAtTheServersSizeLimitAndReturnsNothing)
{
    try {
        m_session->simpleSearch(peopleSearch());
        FAIL() << "nothing thrown";
    } catch (const BaseError& error) {
        EXPECT_EQ(error.ldapCode, 4);
        EXPECT_EQ(error.context, "ldap_search_ext_s"_s);
    }
}

TEST_F(LimitedSearchTest, EndsAPagedSearchAtTheServersSizeLimitWithoutTheCutPage)
{
    Entries entries;
    m_session->asyncSearch(peopleSearch(), entries.handler(), 8);
    EXPECT_EQ(entries.waitForEnd(), Result::sizeLimitExceeded);
    EXPECT_THAT(
        entries.results(), ElementsAre(Result::moreResults, Result::moreResults, Result::sizeLimitExceeded));
    EXPECT_THAT(entries.records(), SizeIs(16));
    EXPECT_EQ(std::get<Result>(m_session->search(peopleSearch(), 8)), Result::sizeLimitExceeded);
}

} // namespace
} // namespace tavo::ldap
