#pragma once

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "support/result_printer.h"
#include "support/slapd.h"
#include "support/threads_end_here.h"
#include <ldap/manager.h>
#include <ldap/session.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tavo::test {

inline utils::Url urlOf(const std::string& text) { return utils::Url(QString::fromStdString(text)); }

inline QString qt(const std::string& text) { return QString::fromStdString(text); }

/// The number in an environment variable, for more than an everyday run.
inline int numberFromEnvironment(const char* variable, int otherwise)
{
    const char* const text = std::getenv(variable);
    return text != nullptr ? std::atoi(text) : otherwise;
}

/// Takes the calls of a search's or a fetch's handler and lets a test wait for them. Must outlive them.
template <class Record>
class Deliveries
{
public:
    struct Delivery
    {
        ldap::Result result;
        std::vector<Record> records;
        std::thread::id thread;
    };

    auto handler()
    {
        return [this](ldap::Result result, std::vector<Record> records) { add(result, std::move(records)); };
    }

    void add(ldap::Result result, std::vector<Record> records)
    {
        const std::lock_guard lock(m_mutex);
        m_deliveries.push_back({result, std::move(records), std::this_thread::get_id()});
        m_finals += result != ldap::Result::moreResults ? 1 : 0;
        m_changed.notify_all();
    }

    /// The final call's result, when it has come; the deadline of the test bounds the waiting.
    ldap::Result waitForEnd()
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_finals != 0; });
        return m_deliveries.back().result;
    }

    void waitForPages(std::size_t count)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_deliveries.size() >= count; });
    }

    std::vector<Delivery> all() const
    {
        const std::lock_guard lock(m_mutex);
        return m_deliveries;
    }

    std::vector<ldap::Result> results() const
    {
        std::vector<ldap::Result> results;
        for (const Delivery& delivery : all()) {
            results.push_back(delivery.result);
        }
        return results;
    }

    std::vector<Record> records() const
    {
        std::vector<Record> records;
        for (const Delivery& delivery : all()) {
            records.insert(records.end(), delivery.records.begin(), delivery.records.end());
        }
        return records;
    }

    int finals() const
    {
        const std::lock_guard lock(m_mutex);
        return m_finals;
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Delivery> m_deliveries;
    int m_finals = 0;
};

using Entries = Deliveries<ldap::SearchEntry>;

/// A container with `count` people, `uid=u0` and on, below the default suffix.
inline std::string people(int count)
{
    std::string ldif = "dn: ou=people,dc=example,dc=test\nobjectClass: organizationalUnit\n\n";
    for (int i = 0; i < count; ++i) {
        const std::string uid = "u" + std::to_string(i);
        ldif += "dn: uid=" + uid + ",ou=people,dc=example,dc=test\nobjectClass: inetOrgPerson\nuid: " + uid +
                "\ncn: Person " + uid + "\nsn: " + uid + "\nmail: " + uid + "@Example.TEST\n\n";
    }
    return ldif;
}

inline ldap::SearchParams peopleSearch()
{
    return {qt("ou=people,dc=example,dc=test"), qt("(objectClass=inetOrgPerson)"), {"uid"},
        ldap::SearchScope::oneLevel};
}

} // namespace tavo::test
