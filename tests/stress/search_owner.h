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
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

namespace tavo::stress {

/// How long anything may take that needs no more than a server's answer or the end of a stall.
inline constexpr std::chrono::seconds kPatience{test::sanitized ? 240 : 60};

/// What the server holds, and who may ask.
struct Directory
{
    static constexpr int people = 120;
    static constexpr int groups = 40;
    /// For those who don't bind.
    static constexpr int sizeLimit = 60;

    std::string rootDn;
    std::string rootPassword;

    static std::string ldif();
};

/// Who uses something now; one at a time, and nobody waits for it.
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
/// Who has claimed it may use and destroy it. Handlers of its searches may start others on it at any time,
/// and any thread may forget searches.
class SearchOwner : public std::enable_shared_from_this<SearchOwner>
{
public:
    /// Connects through a relay whose fault has been prepared. \throws ldap::BaseError
    SearchOwner(Ledger& ledger, const Directory& directory, const std::string& url, Dice& dice);

    std::atomic<bool>& claim() { return m_isClaimed; }
    bool hasEnded() const { return m_hasEnded; }

    /// Starts a search whose handler does something odd now and then.
    void start(Dice& dice);

    /// A blocking operation of a session, or a search by a context of its own.
    void operate(Dice& dice);

    /// Forgets one of the searches, for any thread but in no call of a handler.
    void forgetOne(Dice& dice);

    /// Destroys the manager or session, and sees to it that every search has come to its end with that.
    void end();

    std::size_t unsettled() const;

    /// Whether a search has met with the end of the connection, of late.
    bool isBroken() const;

    /// Waits until no more than `count` searches are under way; says whether that happened in time.
    bool waitForSettled(std::size_t count, std::chrono::milliseconds time) const;

private:
    template <class Record>
    class Handler;
    using SearchPtr = std::shared_ptr<Search>;
    using Operation = void (SearchOwner::*)(Dice&);

    void connectManager(const ldap::Settings& settings);
    void connectSession(const ldap::Settings& settings, Dice& dice);
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
    void endFromCall();
    void operateFromCall(Dice& dice);

    Ledger& m_ledger;
    bool m_isAnonymous = false;

    /// Held by those who forget searches, exclusively by the one who destroys: the object's life.
    std::shared_mutex m_life;
    std::unique_ptr<ldap::Manager> m_ownManager;
    std::unique_ptr<ldap::Session> m_ownSession;
    /// The same for handlers, which need no lock because they are waited for.
    ldap::Manager* m_manager = nullptr;
    ldap::Session* m_session = nullptr;

    std::atomic<bool> m_isClaimed{false};
    std::atomic<bool> m_hasEnded{false};

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<SearchPtr> m_searches;
};

} // namespace tavo::stress
