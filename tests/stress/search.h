#pragma once

#include "dice.h"
#include "ledger.h"

#include <ldap/result.h>

#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tavo::ldap {
class SearchContext;
}

namespace tavo::stress {

/// One asynchronous search as its caller knows it: what its handler was called with, and whether that keeps
/// what the library promises. Thread-safe.
class Search
{
public:
    /// \param complete how many entries there are; nothing when the search can't come to a good end
    /// \param changed called when the search has come to its end, on the thread on which it does
    Search(Ledger& ledger, std::string name, std::optional<std::size_t> complete, Dice dice,
        std::function<void()> changed);

    /// Lives in the handler, and tells when the handler is gone.
    class HandlerLife
    {
    public:
        explicit HandlerLife(std::shared_ptr<Search> search);
        HandlerLife(HandlerLife&&) noexcept = default;
        HandlerLife& operator=(HandlerLife&&) = delete;
        HandlerLife(const HandlerLife&) = delete;
        HandlerLife& operator=(const HandlerLife&) = delete;
        ~HandlerLife();

        Search& search() const { return *m_search; }

    private:
        std::shared_ptr<Search> m_search;
    };

    /// Lives during a call of the handler.
    class Call
    {
    public:
        Call(Search& search, ldap::Result result, const std::vector<QString>& dns);
        ~Call();
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

    private:
        Search& m_search;
        std::thread::id m_outer;
    };

    using Stop = std::function<void(ldap::SearchContext*)>;

    /// Names the search for `forget`; it may have ended by now.
    void started(ldap::SearchContext* context) { m_context = context; }

    /// The start threw: no call may come.
    void refused();

    /// The handler has thrown something that ends the search without a final call.
    void brokenOff();

    /// Forgets the search unless it has ended. Not for calls of handlers.
    void forget(const Stop& stop);

    /// The same from a call of its own handler, where nothing may be waited for.
    void forgetInCall(const Stop& stop);

    /// Whether nothing more is to come from it while its session lives.
    bool isSettled() const;

    /// Whether nothing is to come from it at all.
    bool isOver() const;

    /// Whether it ended with a failure of the connection.
    bool hasLostConnection() const { return m_hasLostConnection; }

    /// Reports it when something is still to come, though its session is gone.
    void checkIsOver() const;

    /// For the handler alone, which is called by one thread at a time.
    Dice& dice() { return m_dice; }

    static std::size_t liveHandlers();

private:
    enum class State
    {
        running,
        final,
        forgotten,
        refused,
        /// It was to be forgotten, but its final call had been decided on: that may begin only now.
        endsInSpiteOfForget
    };

    void onPage(const std::vector<QString>& dns);
    void onEnd(ldap::Result result, const std::vector<QString>& dns);
    void collect(const std::vector<QString>& dns);
    void checkResult(ldap::Result result, bool hasEntries);
    void end(State state);
    void require(bool holds, const char* what) const;

    Ledger& m_ledger;
    const std::string m_name;
    const std::optional<std::size_t> m_complete;
    Dice m_dice;
    const std::function<void()> m_changed;

    /// Held while the search is being forgotten, and by a final call as it begins: so its name is good then.
    mutable std::mutex m_mutex;
    std::atomic<State> m_state{State::running};
    std::atomic<bool> m_isBrokenOff{false};
    std::atomic<ldap::SearchContext*> m_context{nullptr};
    std::atomic<std::thread::id> m_caller{};
    std::atomic<bool> m_hasHandler{false};
    std::atomic<bool> m_hasLostConnection{false};
    std::set<QString> m_dns;
    std::size_t m_received = 0;
};

} // namespace tavo::stress
