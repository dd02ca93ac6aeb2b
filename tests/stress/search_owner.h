#pragma once

#include "dice.h"
#include "ledger.h"
#include "search.h"
#include "support/sanitized.h"
#include <ldap/manager.h>
#include <ldap/session.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

namespace tavo::stress {

/// The longest time that anything may take which waits only for a server's answer or the end of a stall.
inline constexpr std::chrono::seconds kPatience{test::sanitized ? 240 : 60};

/// The server's content and its administrator's credentials.
struct Directory
{
    static constexpr int people = 120;
    static constexpr int groups = 40;
    /// The size limit for anonymous clients.
    static constexpr int sizeLimit = 60;

    std::string rootDn;
    std::string rootPassword;

    static std::string ldif();
};

/// An exclusive claim on something; false when another holds it, for nobody waits.
class Claim
{
public:
    explicit Claim(std::atomic<bool>& isTaken)
        : m_isTaken(isTaken)
        , m_isMine(!isTaken.exchange(true))
    {}
    ~Claim()
    {
        if (m_isMine) {
            m_isTaken = false;
        }
    }
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;
    explicit operator bool() const { return m_isMine; }

private:
    std::atomic<bool>& m_isTaken;
    const bool m_isMine;
};

/// A manager or a session, shared by all threads, with its searches.
///
/// The holder of its claim may use and destroy it. The handlers of its searches may start more searches at
/// any time, and any thread may forget searches.
class SearchOwner : public std::enable_shared_from_this<SearchOwner>
{
public:
    /// Connects through a relay whose fault has been prepared. \throws ldap::BaseError
    SearchOwner(Ledger& ledger, const Directory& directory, const std::string& url, Dice& dice);

    std::atomic<bool>& claim() { return m_isClaimed; }
    bool hasEnded() const { return m_hasEnded; }

    /// Starts a search whose handler does something unusual now and then.
    void start(Dice& dice);

    /// Runs a blocking operation of a session, or a search with a context of its own.
    void operate(Dice& dice);

    /// Forgets one of the searches. For any thread, but not for a handler.
    void forgetOne(Dice& dice);

    /// Forgets a search that has ended, which must harm no other. For any thread, but not for a handler.
    void stopLate(Dice& dice);

    /// Interrupts the connection, if it was made with an interrupter. For any thread and for handlers.
    void interrupt();

    /// Destroys the manager or session, and checks that this has ended every search.
    void end();

    std::size_t unsettled() const;

    /// Whether one of the recent searches has lost the connection, or it was interrupted.
    bool isBroken() const;

    /// Waits until at most `count` searches are under way; returns whether that happened in time.
    bool waitForSettled(std::size_t count, std::chrono::milliseconds time) const;

private:
    template <class Record>
    class Handler;
    using SearchPtr = std::shared_ptr<Search>;
    using Operation = void (SearchOwner::*)(Dice&);

    ldap::ConnectionOptions anyOptions(Dice& dice);
    void connectManager(const ldap::Settings& settings, const ldap::ConnectionOptions& options);
    void connectSession(const ldap::Settings& settings, const ldap::ConnectionOptions& options, Dice& dice);
    void fetchUsers(Dice& dice);
    void fetchGroups(Dice& dice);
    void asyncSearch(Dice& dice);
    void search(Dice& dice);
    void simpleSearch(Dice& dice);
    void whoAmI(Dice& dice);
    void detectVendor(Dice& dice);
    void contextSearch(Dice& dice);
    template <class Record, class Start>
    void startAs(const char* name, int complete, Dice& dice, Start start);

    SearchPtr newSearch(const char* name, std::optional<std::size_t> complete, Dice dice);
    std::optional<std::size_t> reachable(int complete) const;
    void checkEntries(const char* name, const std::vector<ldap::SearchEntry>& entries, int complete) const;
    void changed() const;
    std::size_t unsettledLocked() const;
    template <class Condition>
    bool waitFor(std::chrono::milliseconds time, Condition holds) const;
    void forget(ldap::SearchContext* context);
    void stopLateInCall(Dice& dice);
    void retireEnded();
    void endFromCall();
    void operateFromCall(Dice& dice);

    Ledger& m_ledger;
    bool m_isAnonymous = false;
    std::optional<ldap::Interrupter> m_interrupter;
    /// Set before it happens. The searches outlive their owner.
    const std::shared_ptr<std::atomic<bool>> m_isInterrupted = std::make_shared<std::atomic<bool>>(false);

    /// Keeps the manager or session alive: shared by threads that forget searches, exclusive for the one that
    /// destroys it.
    std::shared_mutex m_life;
    std::unique_ptr<ldap::Manager> m_ownManager;
    std::unique_ptr<ldap::Session> m_ownSession;
    /// The same objects for handlers, which need no lock because the destruction waits for them.
    ldap::Manager* m_manager = nullptr;
    ldap::Session* m_session = nullptr;

    std::atomic<bool> m_isClaimed{false};
    std::atomic<bool> m_hasEnded{false};

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<SearchPtr> m_searches;
    /// By what searches were known that have ended: the latest.
    std::deque<ldap::SearchContext*> m_ended;
};

} // namespace tavo::stress
