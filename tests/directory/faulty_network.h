#pragma once

#include "directory_test.h"
#include "support/tcp_relay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavo::test {

/// How a conversation went: an error while connecting, or a fetch that ended.
struct Outcome
{
    std::optional<int> error;
    int finals = 0;
    ldap::Result result = ldap::Result::moreResults;
    std::size_t users = 0;
};

/// A small conversation with a real server: connection, vendor, bind, a fetch of some pages, and the end.
struct Conversation
{
    /// Without a URL.
    ldap::Settings settings;
    ldap::SearchFilter everybody;
    /// How many a fetch of everybody is to find.
    std::size_t allUsers;
    std::string scheme = "ldap";
    /// How often it may connect. Where the first connection can't be made, which includes the handshake of
    /// `ldaps`, the vendor's detection gives up and the bind tries again.
    std::size_t attempts = 1;

    std::unique_ptr<ldap::Manager> createManager(const std::string& url) const
    {
        ldap::Settings complete = settings;
        complete.uri = urlOf(url);
        return ldap::createManagerOrThrow(complete);
    }

    Outcome fetch(ldap::Manager& manager) const
    {
        Deliveries<ldap::User> users;
        manager.fetchUsersAsync(users.handler(), everybody);
        const ldap::Result result = users.waitForEnd();
        return {std::nullopt, users.finals(), result, users.records().size()};
    }

    Outcome talk(const std::string& url) const
    {
        Deliveries<ldap::User> users;
        const ThreadsEndHere threads;
        return talk(url, users);
    }

    /// The same with a handler of the caller's, who waits for its thread to end.
    Outcome talk(const std::string& url, Deliveries<ldap::User>& users) const
    {
        Outcome outcome;
        try {
            const auto manager = createManager(url);
            manager->fetchUsersAsync(users.handler(), everybody);
            outcome.result = users.waitForEnd();
        } catch (const ldap::BaseError& error) {
            outcome.error = error.ldapCode;
        }
        // Now that the manager is gone: a call that it made at its end would be one too many.
        outcome.finals = users.finals();
        outcome.users = users.records().size();
        return outcome;
    }
};

/// A fetch with a manager that was there before its server died is an error, also when the server is back; a
/// new manager is as good as ever.
template <class Die, class ComeBack>
void expectNewManagersAloneToSurvive(
    const Conversation& conversation, const std::string& url, const Die& die, const ComeBack& comeBack)
{
    const auto expectFetch = [&](ldap::Manager& manager, ldap::Result result, std::size_t users) {
        const Outcome outcome = conversation.fetch(manager);
        EXPECT_EQ(outcome.finals, 1);
        EXPECT_EQ(outcome.result, result);
        EXPECT_EQ(outcome.users, users);
    };
    const auto manager = conversation.createManager(url);
    expectFetch(*manager, ldap::Result::ok, conversation.allUsers);
    die();
    expectFetch(*manager, ldap::Result::connectError, 0);
    EXPECT_THROW(conversation.createManager(url), ldap::BaseError);
    comeBack();
    expectFetch(*manager, ldap::Result::connectError, 0);
    expectFetch(*conversation.createManager(url), ldap::Result::ok, conversation.allUsers);
}

/// Has one conversation over and over again through a network that fails, each time in another place. However
/// it fails, there is one error or one final call, part of the users never passes for all of them, nobody
/// connects more often than he may, and no thread and no descriptor is left at the end.
class FaultyNetwork
{
public:
    using Direction = TcpRelay::Direction;
    using Ending = TcpRelay::Ending;

    static constexpr std::array directions{Direction::toServer, Direction::toClient};
    static constexpr std::array endings{Ending::close, Ending::reset, Ending::halfClose};

    FaultyNetwork(Conversation conversation, std::uint16_t port, const std::string& address = "127.0.0.1")
        : m_conversation(std::move(conversation))
        , m_relay(port, address)
    {}

    /// Breaks off after every `stride` bytes that the conversation carries that way, beginning with none.
    void breakOffAtBytes(Direction direction, Ending ending, std::size_t stride)
    {
        const std::size_t bytes = countBytes(direction);
        ASSERT_GT(bytes, 100U);
        const NothingIsLeft nothingIsLeft;
        Tally tally;
        for (std::size_t at = 0; at <= bytes; at += stride) {
            SCOPED_TRACE("after " + std::to_string(at) + " of " + std::to_string(bytes) + " bytes");
            tally.add(breakOff(direction, TcpRelay::bytes(at), ending));
        }
        tally.record(direction, ending);
        m_relay.waitUntilIdle();
    }

    /// Breaks off at every boundary of a message, the outer ones included. For traffic without TLS.
    void breakOffBetweenMessages(Direction direction, Ending ending)
    {
        const std::size_t messages = countMessages(direction);
        const NothingIsLeft nothingIsLeft;
        Tally tally;
        for (std::size_t after = 0; after <= messages; ++after) {
            SCOPED_TRACE("after message " + std::to_string(after));
            tally.add(breakOff(direction, TcpRelay::messages(after), ending));
        }
        tally.record(direction, ending);
        m_relay.waitUntilIdle();
    }

    /// Lets the traffic stall before each message, and go on: nothing may be lost. For traffic without TLS.
    void stallBetweenMessages(Direction direction)
    {
        const std::size_t messages = countMessages(direction);
        const NothingIsLeft nothingIsLeft;
        for (std::size_t after = 0; after < messages; ++after) {
            SCOPED_TRACE("after message " + std::to_string(after));
            expectComplete(stall(direction, TcpRelay::messages(after), std::nullopt));
        }
        m_relay.waitUntilIdle();
    }

    /// Lets the traffic stall before each message, and then break off. For traffic without TLS.
    void breakOffAfterStalls(Direction direction, Ending ending)
    {
        const std::size_t messages = countMessages(direction);
        const NothingIsLeft nothingIsLeft;
        Tally tally;
        for (std::size_t after = 0; after < messages; ++after) {
            SCOPED_TRACE("after message " + std::to_string(after));
            const Outcome outcome = stall(direction, TcpRelay::messages(after), ending);
            expectHonest(outcome);
            tally.add(outcome);
        }
        tally.record(direction, ending);
        m_relay.waitUntilIdle();
    }

    /// Lets the traffic stall before each message of the fetch, and the manager go meanwhile: that doesn't
    /// wait for the server. For traffic without TLS.
    void giveUpBetweenMessages(Direction direction)
    {
        const std::size_t created = countMessages(direction, [&] { m_conversation.createManager(url()); });
        const std::size_t messages = countMessages(direction);
        // A client ends by a message of its own.
        const std::size_t farewell = direction == Direction::toServer ? 1 : 0;
        ASSERT_GT(messages, created);
        const NothingIsLeft nothingIsLeft;
        for (std::size_t after = created - farewell; after < messages - farewell; ++after) {
            SCOPED_TRACE("after message " + std::to_string(after));
            expectCancelled(direction, TcpRelay::messages(after));
        }
        m_relay.waitUntilIdle();
    }

private:
    std::string url() const { return m_relay.url(m_conversation.scheme); }

    /// How the conversations of one kind of failure went.
    class Tally
    {
    public:
        void add(const Outcome& outcome)
        {
            ++(outcome.error ? m_errors : outcome.result == ldap::Result::ok ? m_complete : m_failures);
        }

        /// Goes into the report of the test run. There must have been something of both kinds.
        void record(Direction direction, Ending ending) const
        {
            static constexpr std::array names{"close", "halfClose", "reset"};
            const std::string name = names.at(static_cast<std::size_t>(ending)) +
                                     std::string(direction == Direction::toServer ? "ToServer" : "ToClient");
            ::testing::Test::RecordProperty(name, std::to_string(m_errors + m_failures + m_complete) +
                                                      " places: " + std::to_string(m_errors) + " errors, " +
                                                      std::to_string(m_failures) + " failed fetches, " +
                                                      std::to_string(m_complete) + " complete ones");
            EXPECT_GT(m_errors, 0);
            EXPECT_GT(m_failures, 0);
        }

    private:
        int m_errors = 0;
        int m_failures = 0;
        int m_complete = 0;
    };

    Outcome breakOff(Direction direction, TcpRelay::Point point, Ending ending)
    {
        m_relay.passEverything();
        m_relay.cut(direction, point, ending);
        const std::size_t connections = m_relay.connections();
        const Outcome outcome = m_conversation.talk(url());
        EXPECT_LE(m_relay.connections(), connections + m_conversation.attempts);
        expectHonest(outcome);
        return outcome;
    }

    /// How a conversation goes that stops at that point and then goes on, or ends there for good.
    Outcome stall(Direction direction, TcpRelay::Point point, std::optional<Ending> ending)
    {
        m_relay.passEverything();
        const Gate goOn;
        const Gate reached = m_relay.hold(direction, point, goOn);
        if (ending) {
            m_relay.cut(direction, point, *ending);
        }
        auto talking = std::async(std::launch::async, [&] { return m_conversation.talk(url()); });
        reached.wait("the stall");
        goOn.open();
        return talking.get();
    }

    void expectHonest(const Outcome& outcome) const
    {
        EXPECT_EQ(outcome.finals, outcome.error ? 0 : 1);
        if (outcome.result == ldap::Result::ok) {
            EXPECT_EQ(outcome.users, m_conversation.allUsers);
        }
    }

    void expectCancelled(Direction direction, TcpRelay::Point point)
    {
        m_relay.passEverything();
        const ThreadsEndHere threads;
        const Gate goOn;
        const Gate reached = m_relay.hold(direction, point, goOn);
        Deliveries<ldap::User> users;
        auto manager = m_conversation.createManager(url());
        manager->fetchUsersAsync(users.handler(), m_conversation.everybody);
        reached.wait("the stall");
        manager.reset();
        EXPECT_EQ(users.finals(), 1);
        EXPECT_EQ(users.results().back(), ldap::Result::cancelled);
        // The thread of the search is still waiting for its answer.
        goOn.open();
    }

    void expectComplete(const Outcome& outcome) const
    {
        EXPECT_EQ(outcome.error, std::nullopt);
        EXPECT_EQ(outcome.finals, 1);
        EXPECT_EQ(outcome.result, ldap::Result::ok);
        EXPECT_EQ(outcome.users, m_conversation.allUsers);
    }

    void talkUndisturbed() { expectComplete(m_conversation.talk(url())); }

    std::size_t countBytes(Direction direction)
    {
        m_relay.passEverything();
        m_relay.waitUntilIdle();
        const std::size_t before = m_relay.forwarded(direction);
        talkUndisturbed();
        m_relay.waitUntilIdle();
        return m_relay.forwarded(direction) - before;
    }

    std::size_t countMessages(Direction direction)
    {
        return countMessages(direction, [&] { talkUndisturbed(); });
    }

    /// Counts by doors that stand open, one behind each message.
    std::size_t countMessages(Direction direction, const std::function<void()>& talk)
    {
        static constexpr std::size_t kMany = 200;
        m_relay.passEverything();
        const Gate open;
        open.open();
        std::vector<Gate> passed;
        for (std::size_t after = 1; after <= kMany; ++after) {
            passed.push_back(m_relay.hold(direction, TcpRelay::messages(after), open));
        }
        talk();
        m_relay.waitUntilIdle();
        const auto messages =
            std::count_if(passed.begin(), passed.end(), [](const Gate& gate) { return gate.isOpen(); });
        EXPECT_GT(messages, 2);
        EXPECT_LT(messages, kMany);
        return static_cast<std::size_t>(messages);
    }

    const Conversation m_conversation;
    TcpRelay m_relay;
};

} // namespace tavo::test
