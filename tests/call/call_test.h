#pragma once

#include "support/call_recorder.h"
#include "support/qt_printers.h"
#include "support/thrown_by.h"
#include <ldap/session.h>
#include <tavo_utils/mutex.h>

#include <gtest/gtest.h>
#include <ldap.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace tavo::test {

/// Nobody is asked at this address: the calls that would go there are told how to end.
inline utils::Url plainUrl() { return utils::Url("ldap://127.0.0.1:1"_s); }
inline utils::Url secureUrl() { return utils::Url("ldaps://127.0.0.1:1"_s); }

inline void expectError(const ldap::BaseError& error, int ldapCode, const QString& context, int systemError)
{
    EXPECT_EQ(error.ldapCode, ldapCode);
    EXPECT_EQ(error.context, context);
    EXPECT_EQ(error.systemError, systemError);
}

inline std::vector<std::string> described(const std::vector<RecordedCall>& calls)
{
    std::vector<std::string> texts;
    for (const auto& call : calls)
        texts.push_back(describe(call));
    return texts;
}

/// The calls of some functions alone, in their order.
inline std::vector<std::string> namesAmong(
    const CallRecorder& recorder, const std::vector<std::string>& functions)
{
    auto names = recorder.names();
    const auto isOther = [&](const std::string& name) {
        return std::find(functions.begin(), functions.end(), name) == functions.end();
    };
    names.erase(std::remove_if(names.begin(), names.end(), isOther), names.end());
    return names;
}

/// Runs `before` on the calling thread whenever the function is called, which is carried out then.
template <class R, class... A>
void beforeEach(CallRecorder& recorder, R (*function)(A...), std::function<void()> before)
{
    recorder.replace(function, [function, before = std::move(before)](A... arguments) -> R {
        before();
        return CallRecorder::real(function)(arguments...);
    });
}

/// Sees every lock of a tavo::Mutex while it lives. There is one at a time.
class LockWatch
{
public:
    LockWatch()
    {
        const std::lock_guard lock(listMutex());
        taken().clear();
        setLockObserver(&observe);
    }
    ~LockWatch() { setLockObserver(nullptr); }
    LockWatch(const LockWatch&) = delete;
    LockWatch& operator=(const LockWatch&) = delete;

    /// Where mutexes of this file were taken, as "FILE:LINE".
    std::vector<std::string> positionsIn(const std::string& file) const
    {
        const std::lock_guard lock(listMutex());
        std::vector<std::string> positions;
        for (const auto& position : taken()) {
            if (position.file == file)
                positions.push_back(file + ":" + std::to_string(position.line));
        }
        return positions;
    }

    /// Whether the calling thread holds this mutex.
    static bool isHeldHere(const Mutex& mutex)
    {
        return std::find(heldHere().begin(), heldHere().end(), &mutex) != heldHere().end();
    }
    static std::size_t countHeldHere() { return heldHere().size(); }

private:
    struct Position
    {
        std::string file;
        int line;
    };

    static std::mutex& listMutex()
    {
        static std::mutex mutex;
        return mutex;
    }
    static std::vector<Position>& taken()
    {
        static std::vector<Position> positions;
        return positions;
    }
    static std::vector<const Mutex*>& heldHere()
    {
        thread_local std::vector<const Mutex*> held;
        return held;
    }

    static void observe(const Mutex& mutex, SourcePosition position, LockEvent event)
    {
        auto& held = heldHere();
        if (event == LockEvent::unlocked) {
            const auto last = std::find(held.rbegin(), held.rend(), &mutex);
            if (last != held.rend())
                held.erase(std::next(last).base());
            return;
        }
        held.push_back(&mutex);
        const std::lock_guard lock(listMutex());
        taken().push_back({position.file, position.line});
    }
};

} // namespace tavo::test
