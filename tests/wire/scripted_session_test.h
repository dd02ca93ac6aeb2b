#pragma once

#include "support/result_printer.h"
#include "support/scripted_server.h"
#include <ldap/session.h>
#include <tavo_utils/log.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tavo::test {

/// What a search's handler was called with; the waits throw when `kDeadline` passes.
class HandlerCalls
{
public:
    struct Call
    {
        ldap::Result result;
        std::vector<ldap::SearchEntry> entries;
    };

    ldap::SearchHandler handler()
    {
        return [this](ldap::Result result, std::vector<ldap::SearchEntry> entries) {
            add(result, std::move(entries));
        };
    }

    void add(ldap::Result result, std::vector<ldap::SearchEntry> entries)
    {
        const std::lock_guard lock(m_mutex);
        m_calls.push_back({result, std::move(entries)});
        m_changed.notify_all();
    }

    std::vector<Call> waitForCalls(std::size_t count)
    {
        return waitUntil([&] { return m_calls.size() >= count; });
    }

    /// All calls, once the final one has come.
    std::vector<Call> waitForEnd()
    {
        return waitUntil(
            [&] { return !m_calls.empty() && m_calls.back().result != ldap::Result::moreResults; });
    }

    std::size_t count() const
    {
        const std::lock_guard lock(m_mutex);
        return m_calls.size();
    }

private:
    template <class Condition>
    std::vector<Call> waitUntil(Condition holds)
    {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, kDeadline, holds))
            throw std::runtime_error(
                "waited in vain for the handler; calls: " + std::to_string(m_calls.size()));
        return m_calls;
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Call> m_calls;
};

/// A handler that must never be called, of a search or a fetch, and whether it is still there.
class UncalledHandler
{
public:
    auto handler()
    {
        auto owned = std::make_shared<int>(0);
        m_owned = owned;
        return [owned = std::move(owned)](
                   ldap::Result, const auto& /*records*/) { ADD_FAILURE() << "the handler was called"; };
    }
    bool isDropped() const { return m_owned.expired(); }

private:
    std::weak_ptr<int> m_owned;
};

inline std::string utf8(const QString& text) { return text.toStdString(); }

inline std::vector<std::string> dnsOf(const std::vector<ldap::SearchEntry>& entries)
{
    std::vector<std::string> dns;
    for (const auto& found : entries)
        dns.push_back(utf8(found.dn));
    return dns;
}

inline std::vector<ldap::Result> resultsOf(const std::vector<HandlerCalls::Call>& calls)
{
    std::vector<ldap::Result> results;
    for (const auto& call : calls)
        results.push_back(call.result);
    return results;
}

inline ldap::SearchParams below(const std::string& base)
{
    return {QString::fromStdString(base), QString(), {}, ldap::SearchScope::subtree};
}

/// Entries `cn=FIRST` to `cn=FIRST+COUNT-1`.
inline std::vector<Entry> entries(int first, int count)
{
    std::vector<Entry> made;
    for (int i = first; i < first + count; ++i)
        made.push_back(entry("cn=" + std::to_string(i)));
    return made;
}

/// A warning is thinned out when it has come often, as it does when tests run in one process; not while this
/// lives.
class UnthinnedLog
{
public:
    UnthinnedLog()
        : m_former(log::reducerConfig())
    {
        log::setReducerConfig({.period = m_former.period, .limit = 0});
    }
    ~UnthinnedLog() { log::setReducerConfig(m_former); }
    UnthinnedLog(const UnthinnedLog&) = delete;
    UnthinnedLog& operator=(const UnthinnedLog&) = delete;

private:
    log::ReducerConfig m_former;
};

/// A session with a scripted server.
class ScriptedSessionTest : public ::testing::Test
{
protected:
    static utils::Url urlOf(const ScriptedServer& server)
    {
        return utils::Url(QString::fromStdString(server.url()));
    }

    /// The whole of a paged search below dc=x.
    std::vector<HandlerCalls::Call> fetch(int pageSize)
    {
        HandlerCalls calls;
        session.asyncSearch(below("dc=x"), calls.handler(), pageSize);
        return calls.waitForEnd();
    }

    /// The code with which a search of one page ends.
    static ldap::Result resultOf(ldap::Session& searching)
    {
        const auto outcome = searching.search(below("dc=x"), 100);
        return std::holds_alternative<ldap::Result>(outcome) ? std::get<ldap::Result>(outcome)
                                                             : ldap::Result::ok;
    }

    ScriptedServer server;
    ldap::Session session{urlOf(server), false, false};

private:
    UnthinnedLog m_unthinned;
};

} // namespace tavo::test
