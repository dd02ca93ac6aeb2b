// One whole fetch of users, over and over, with another call of the client library failing each time.
#include "call_test.h"

#include "support/scripted_server.h"

#include <ldap/manager.h>

#include <cerrno>
#include <future>

#include <gmock/gmock.h>

namespace tavo::test {

namespace {

using ldap::Manager;
using ldap::Result;
using ldap::Settings;
using ldap::User;

using ::testing::SizeIs;

/// A function and the way in which it fails.
struct Fault
{
    std::string function;
    std::function<void(CallRecorder&, int nth)> inject;
};

void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.function; }

template <class R, class... A>
Fault fault(std::string name, R (*function)(A...), std::type_identity_t<R> result, int error)
{
    return {std::move(name), [=](CallRecorder& recorder, int nth) {
                recorder.fail(function, result, {.nth = nth, .error = error});
            }};
}

#define TAVO_FAULT(function, result, error) fault(#function, function, result, error)

/// How a fetch ended that nobody stopped.
struct Outcome
{
    std::vector<Result> finalCalls;
    std::size_t users = 0;
};

Outcome fetchUsers(Manager& manager)
{
    struct State
    {
        std::mutex mutex;
        Outcome outcome;
        std::promise<void> ended;
    };
    const auto state = std::make_shared<State>();
    manager.fetchUsersAsync(
        [state](Result result, std::vector<User> users) {
            const std::lock_guard lock(state->mutex);
            state->outcome.users += users.size();
            if (result == Result::moreResults)
                return;
            state->outcome.finalCalls.push_back(result);
            if (state->outcome.finalCalls.size() == 1)
                state->ended.set_value();
        },
        {});
    if (state->ended.get_future().wait_for(kDeadline) != std::future_status::ready)
        throw std::runtime_error("the fetch never ended");
    const std::lock_guard lock(state->mutex);
    return state->outcome;
}

class EveryCall : public ::testing::TestWithParam<Fault>
{
protected:
    static constexpr std::size_t kUsers = 5;

    EveryCall()
    {
        server.otherwise([](const Request& request) -> Steps {
            if (!request.is<SearchRequest>())
                return success();
            const auto page = pageRequested(request);
            if (!page)
                return {entry("").attr("vendorName", "nobody's"), done()};
            const int first = page->cookie.empty() ? 0 : std::stoi(page->cookie);
            Steps steps;
            const int end = std::min(first + 2, static_cast<int>(kUsers));
            for (int i = first; i < end; ++i) {
                const auto name = std::to_string(i);
                steps.append(entry("uid=" + name).attr("uid", name).attr("displayName", "Name " + name));
            }
            steps.append(reference({"ldap://127.0.0.1:1/"}));
            steps.append(done().page(end < static_cast<int>(kUsers) ? std::to_string(end) : ""));
            return steps;
        });
        settings.uri = utils::Url(QString::fromStdString(server.url()));
        settings.startTls = true;
        settings.adminDn = "cn=admin"_s;
        settings.adminPassword = "secret"_s;
        settings.searchPageSize = 2;
    }

    /// What one fetch calls of the function; its manager and everything else of it are gone afterwards.
    std::size_t callsWithoutFault()
    {
        CallRecorder recorder;
        prepare(recorder);
        EXPECT_EQ(fetchUsers(*ldap::createManagerOrThrow(settings)).users, kUsers);
        waitForHandles(recorder);
        return recorder.count(GetParam().function);
    }

    static void prepare(CallRecorder& recorder)
    {
        // The root DSE is read with all its attributes.
        recorder.mayKeepAttributeIterators();
        recorder.replace(ldap_start_tls_s, [](LDAP*, LDAPControl**, LDAPControl**) { return LDAP_SUCCESS; });
    }

    /// A search's thread closes its own handle, the last thing that it does, after the final call.
    static void waitForHandles(const CallRecorder& recorder)
    {
        const auto calls = recorder.calls();
        const auto made = std::count_if(
            calls.begin(), calls.end(), [](const auto& call) { return call.arguments.count("new") != 0; });
        recorder.waitForReturns("ldap_destroy", static_cast<std::size_t>(made));
    }

    ScriptedServer server;
    Settings settings;
};

TEST_P(EveryCall, mayFailAndTheFetchEndsOnceLeavingNothingBehind)
{
    const auto calls = callsWithoutFault();
    ASSERT_GT(calls, 0U);
    RecordProperty("faults", static_cast<int>(calls));
    for (int nth = 1; nth <= static_cast<int>(calls); ++nth) {
        SCOPED_TRACE(GetParam().function + " fails, call " + std::to_string(nth));
        // Reports what is not freed, or freed twice, when it goes.
        CallRecorder recorder;
        prepare(recorder);
        GetParam().inject(recorder, nth);
        try {
            const auto manager = ldap::createManagerOrThrow(settings);
            EXPECT_THAT(fetchUsers(*manager).finalCalls, SizeIs(1));
            // One failed call is not the end of a session.
            const auto again = fetchUsers(*manager);
            EXPECT_EQ(again.users, kUsers);
            EXPECT_THAT(again.finalCalls, ::testing::ElementsAre(Result::ok));
        } catch (const ldap::BaseError&) {
        }
        waitForHandles(recorder);
    }
}

// Those that can't fail are left out: they only free, or ask for what is there.
INSTANTIATE_TEST_SUITE_P(ClientLibrary, EveryCall,
    ::testing::Values(TAVO_FAULT(ber_strdup, nullptr, ENOMEM), TAVO_FAULT(ldap_control_find, nullptr, 0),
        TAVO_FAULT(ldap_create_page_control, LDAP_NO_MEMORY, ENOMEM),
        TAVO_FAULT(ldap_destroy, LDAP_OTHER, EIO), TAVO_FAULT(ldap_dup, nullptr, ENOMEM),
        TAVO_FAULT(ldap_first_attribute, nullptr, ENOMEM), TAVO_FAULT(ldap_first_entry, nullptr, 0),
        TAVO_FAULT(ldap_get_dn, nullptr, ENOMEM), TAVO_FAULT(ldap_get_option, LDAP_OPT_ERROR, 0),
        TAVO_FAULT(ldap_get_values_len, nullptr, ENOMEM), TAVO_FAULT(ldap_initialize, LDAP_NO_MEMORY, ENOMEM),
        TAVO_FAULT(ldap_next_attribute, nullptr, ENOMEM), TAVO_FAULT(ldap_next_entry, nullptr, 0),
        TAVO_FAULT(ldap_parse_pageresponse_control, LDAP_DECODING_ERROR, 0),
        TAVO_FAULT(ldap_parse_result, LDAP_DECODING_ERROR, 0), TAVO_FAULT(ldap_result, -1, ECONNRESET),
        TAVO_FAULT(ldap_sasl_bind_s, LDAP_SERVER_DOWN, ECONNRESET),
        TAVO_FAULT(ldap_search_ext, LDAP_SERVER_DOWN, EPIPE),
        TAVO_FAULT(ldap_search_ext_s, LDAP_SERVER_DOWN, ECONNRESET),
        TAVO_FAULT(ldap_set_option, LDAP_OPT_ERROR, 0),
        TAVO_FAULT(ldap_start_tls_s, LDAP_CONNECT_ERROR, ECONNREFUSED)),
    [](const auto& fault) { return fault.param.function; });

} // namespace

} // namespace tavo::test
