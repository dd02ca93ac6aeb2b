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

/// One asynchronous search from its caller's point of view: records the calls of its handler and checks them
/// against the library's promises. Thread-safe.
class Search
{
public:
    /// \param complete the number of entries it must find; nothing when the search can't succeed
    /// \param isInterrupted whether its connection has been interrupted
    /// \param changed called when the search has ended, on the thread that ends it
    Search(Ledger& ledger, std::string name, std::optional<std::size_t> complete, Dice dice,
        std::shared_ptr<const std::atomic<bool>> isInterrupted, std::function<void()> changed);

    /// A member of the handler, which notices when the handler is destroyed.
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

    /// Exists during a call of the handler.
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

    /// Sets the pointer by which `forget` stops the search; the search may have ended by now.
    void started(ldap::SearchContext* context) { m_context = context; }

    /// The start threw: the handler must not be called.
    void refused();

    /// The handler has thrown an exception that ends the search without a final call.
    void brokenOff();

    /// Forgets the search unless it has ended. Must not be called by a handler.
    void forget(const Stop& stop);

    /// The same for its own handler, which must not wait.
    void forgetInCall(const Stop& stop);

    /// The pointer by which it was known; null if it never was.
    ldap::SearchContext* context() const { return m_context; }

    /// Whether no more calls of the handler can come while the session lives.
    bool isSettled() const;

    /// Whether no more calls of the handler can come at all.
    bool isOver() const;

    /// Whether it ended with a failure of the connection.
    bool hasLostConnection() const { return m_hasLostConnection; }

    /// Reports a violation if calls can still come; for when the session is gone.
    void checkIsOver() const;

    /// Only for the handler, which one thread calls at a time.
    Dice& dice() { return m_dice; }

    static std::size_t liveHandlers();

private:
    enum class State
    {
        running,
        final,
        forgotten,
        refused,
        /// It was forgotten when its final call was already due: that call may begin only now.
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
    const std::shared_ptr<const std::atomic<bool>> m_isInterrupted;
    const std::function<void()> m_changed;

    /// Held while the search is being forgotten, and by a final call as it begins, so that its pointer stays
    /// valid meanwhile.
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
