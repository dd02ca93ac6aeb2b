#pragma once

#include "call_test.h"
#include "support/log_capture.h"
#include "support/scripted_server.h"
#include "wire/scripted_session_test.h"

#include <memory>
#include <utility>
#include <vector>

namespace tavo::test {

/// A session with a scripted server, every call of which is recorded.
class SearchCalls : public ::testing::Test
{
protected:
    ~SearchCalls() override
    {
        session.reset();
        // A search's thread closes its own handle, the last thing that it does, after the final call.
        recorder.waitForReturns("ldap_destroy", handlesMade());
    }

    static ldap::SearchParams params()
    {
        return {"dc=x"_s, "(cn=*)"_s, {"cn", "mail"}, ldap::SearchScope::oneLevel};
    }

    std::shared_ptr<ldap::SearchContext> makeContext() { return session->createSearchContext(params()); }

    /// The whole of a paged search with two entries on a page.
    std::vector<HandlerCalls::Call> fetch()
    {
        HandlerCalls calls;
        session->asyncSearch(params(), calls.handler(), 2);
        return calls.waitForEnd();
    }

    ScriptedServer server;
    CallRecorder recorder;
    LogCapture log;
    std::unique_ptr<ldap::Session> session =
        std::make_unique<ldap::Session>(utils::Url(QString::fromStdString(server.url())), false, false);

private:
    UnthinnedLog m_unthinned;

    std::size_t handlesMade() const
    {
        const auto calls = recorder.calls();
        return static_cast<std::size_t>(std::count_if(
            calls.begin(), calls.end(), [](const auto& call) { return call.arguments.count("new") != 0; }));
    }
};

} // namespace tavo::test
