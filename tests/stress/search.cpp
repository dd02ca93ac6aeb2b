#include "search.h"

#include <utility>

namespace tavo::stress {

namespace {

std::atomic<std::size_t> handlersAlive{0};

} // namespace

Search::Search(Ledger& ledger, std::string name, std::optional<std::size_t> complete, Dice dice,
    std::shared_ptr<const std::atomic<bool>> isInterrupted, std::function<void()> changed)
    : m_ledger(ledger)
    , m_name(std::move(name))
    , m_complete(complete)
    , m_dice(std::move(dice))
    , m_isInterrupted(std::move(isInterrupted))
    , m_changed(std::move(changed))
{}

Search::HandlerLife::HandlerLife(std::shared_ptr<Search> search)
    : m_search(std::move(search))
{
    m_search->m_hasHandler = true;
    ++handlersAlive;
}

Search::HandlerLife::~HandlerLife()
{
    if (m_search) {
        m_search->m_hasHandler = false;
        --handlersAlive;
    }
}

std::size_t Search::liveHandlers() { return handlersAlive; }

Search::Call::Call(Search& search, ldap::Result result, const std::vector<QString>& dns)
    : m_search(search)
    , m_outer(search.m_caller.exchange(std::this_thread::get_id()))
{
    // A handler that stops its own search gets the final call inside its current one.
    search.require(m_outer == std::thread::id() || m_outer == std::this_thread::get_id(),
        "is called by two threads at a time");
    if (result == ldap::Result::moreResults) {
        search.onPage(dns);
    } else {
        search.onEnd(result, dns);
    }
}

Search::Call::~Call() { m_search.m_caller = m_outer; }

void Search::onPage(const std::vector<QString>& dns)
{
    m_ledger.count(Event::pageDelivered);
    require(m_state == State::running, "gets a page after it was forgotten or has ended");
    require(!m_isBrokenOff, "gets a page after its handler has thrown");
    collect(dns);
}

void Search::onEnd(ldap::Result result, const std::vector<QString>& dns)
{
    m_ledger.countFinal(result);
    m_hasLostConnection = result == ldap::Result::connectError;
    const std::lock_guard lock(m_mutex);
    require(m_state != State::forgotten, "gets a final call after it was forgotten");
    require(m_state != State::refused, "gets a final call though it was never started");
    require(m_state != State::final, "gets a second final call");
    require(m_state == State::running || result != ldap::Result::cancelled || *m_isInterrupted,
        "was to be forgotten and is cancelled");
    collect(dns);
    checkResult(result, !dns.empty());
    end(State::final);
}

void Search::collect(const std::vector<QString>& dns)
{
    m_received += dns.size();
    m_dns.insert(dns.begin(), dns.end());
}

void Search::checkResult(ldap::Result result, bool hasEntries)
{
    if (result != ldap::Result::ok) {
        require(!hasEntries, "gets entries with a failure");
        require(!m_isBrokenOff || result == ldap::Result::cancelled, "goes on after its handler has thrown");
        return;
    }
    require(m_complete.has_value(), "is ok though it can't be");
    require(m_received == m_complete && m_dns.size() == m_complete,
        "is ok though entries are missing or doubled");
}

void Search::end(State state)
{
    m_state = state;
    m_changed();
}

void Search::refused()
{
    const std::lock_guard lock(m_mutex);
    require(m_state == State::running, "was called though its start failed");
    require(!m_hasHandler, "keeps its handler though its start failed");
    end(State::refused);
}

void Search::brokenOff()
{
    m_isBrokenOff = true;
    m_changed();
}

void Search::forget(const Stop& stop)
{
    const std::lock_guard lock(m_mutex);
    if (m_state != State::running || m_context == nullptr) {
        return;
    }
    stop(m_context);
    if (m_hasHandler) {
        m_ledger.count(Event::forgottenTooLate);
        m_state = State::endsInSpiteOfForget;
        return;
    }
    m_ledger.count(Event::searchForgotten);
    end(State::forgotten);
}

void Search::forgetInCall(const Stop& stop)
{
    const std::unique_lock lock(m_mutex, std::try_to_lock);
    if (!lock || m_state != State::running || m_context == nullptr) {
        return;
    }
    stop(m_context);
    // The handler exists until its call returns.
    m_ledger.count(Event::searchForgotten);
    end(State::forgotten);
}

bool Search::isSettled() const { return m_isBrokenOff || isOver(); }

bool Search::isOver() const
{
    const State state = m_state;
    return state != State::running && state != State::endsInSpiteOfForget;
}

void Search::checkIsOver() const
{
    const State state = m_state;
    require(state != State::running, "has had no final call, and its session is gone");
    require(
        state != State::endsInSpiteOfForget, "kept its handler when it was forgotten, and never called it");
}

void Search::require(bool holds, const char* what) const
{
    if (!holds) {
        m_ledger.violation(m_name + " " + what);
    }
}

} // namespace tavo::stress
