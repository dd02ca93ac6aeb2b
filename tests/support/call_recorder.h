#pragma once

#include "support/gate.h"
#include "support/ldap_messages.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace tavo::test {

/// One call of the client library, with a deep copy of its arguments.
struct RecordedCall
{
    /// Stands for a connection handle: 1 is the first one that was seen.
    struct HandleNumber
    {
        int number = 0;
        bool operator==(const HandleNumber&) const = default;
    };
    struct Time
    {
        std::int64_t seconds = 0;
        std::int64_t fraction = 0; ///< microseconds; nanoseconds for nanosleep
        bool operator==(const Time&) const = default;
    };
    /// Something that is not looked into: a message, an iterator.
    struct Opaque
    {
        const void* address = nullptr;
        bool operator==(const Opaque&) const = default;
    };
    /// A null pointer is `nullptr` whatever it would point to.
    using Value = std::variant<std::nullptr_t, std::int64_t, Bytes, std::vector<Bytes>, std::vector<Control>,
        HandleNumber, Time, Opaque>;

    std::string function;
    std::thread::id thread;
    /// By the names in libldap's manual pages; what a call gave back through a pointer is added when it
    /// returned.
    std::map<std::string, Value> arguments;
    /// Empty until the call has returned. A pointer counts as 1, a null pointer as 0.
    std::optional<std::int64_t> result;
    /// What the caller finds in `errno`.
    int error = 0;

    /// Each throws, naming the argument, when it doesn't exist or is of another kind.
    bool isNull(const std::string& argument) const;
    std::int64_t number(const std::string& argument) const;
    Bytes text(const std::string& argument) const;
    std::vector<Bytes> texts(const std::string& argument) const;
    std::vector<Control> controls(const std::string& argument) const;
    Time time(const std::string& argument) const;
    /// The number of the connection handle that the call was about.
    int handle() const;
};

std::string describe(const RecordedCall& call);

/// Which calls of a function an instruction is for, and what they leave in `errno`.
struct Occasion
{
    /// The n-th call since the recorder's beginning, 1 being the first; 0 means every one.
    int nth = 0;
    std::optional<int> error = std::nullopt;
};

/// Records what a program linked with `tavo_wrap_libldap(target)` calls of libldap, liblber and OpenSSL's
/// error queue, changes how those calls end, and keeps the books on everything that libldap hands out.
///
///     CallRecorder recorder;
///     recorder.fail(ldap_search_ext, LDAP_SERVER_DOWN, {.nth = 2, .error = ECONNRESET});
///     recorder.fail(ldap_get_dn, nullptr, {.nth = 3});
///     ...
///     EXPECT_THAT(recorder.names(), ElementsAre("ERR_clear_error", "ldap_initialize", ...));
///     EXPECT_EQ(recorder.only("ldap_search_ext").text("base"), "dc=x");
///
/// Without other instructions a call goes through to the real function, and without a recorder in the process
/// it does so unseen. There is one recorder at a time. It may be used from any thread; calls that begin while
/// it lives must end before it goes.
///
/// Everything handed out while the recorder lives has to be freed once, with the function meant for it,
/// before the recorder goes; what isn't so fails the test. A second free is reported and not carried out.
class CallRecorder
{
public:
    CallRecorder();
    /// Reports the problems that nobody took as failures of the running test.
    ~CallRecorder();
    CallRecorder(const CallRecorder&) = delete;
    CallRecorder& operator=(const CallRecorder&) = delete;

    /// The call is not carried out and returns `result`; what it should give back through pointers stays as
    /// it is. A function that frees something frees it all the same, as the real one does when it fails.
    template <class R, class... A>
    void fail(R (*function)(A...), std::type_identity_t<R> result, Occasion occasion = {})
    {
        const std::lock_guard lock(mutex());
        plan(function).outcomes.push_back({occasion, [result](A...) { return result; }});
    }

    /// The call is carried out, and `errno` is `error` afterwards, whatever came of it.
    template <class R, class... A>
    void leaveErrno(R (*function)(A...), int error, int nth = 0)
    {
        const std::lock_guard lock(mutex());
        plan(function).outcomes.push_back({{.nth = nth, .error = error}, {}});
    }

    /// Every function that frees something leaves this value in `errno`: whoever reads `errno` too late is
    /// found out.
    void leaveErrnoWhenFreeing(int error);

    /// Calls `replacement` in place of the function; it may call `real(function)`.
    template <class R, class... A>
    void replace(R (*function)(A...), std::type_identity_t<std::function<R(A...)>> replacement)
    {
        const std::lock_guard lock(mutex());
        plan(function).replacement = std::move(replacement);
    }

    /// The function as the library has it.
    template <class R, class... A>
    static auto real(R (*function)(A...)) -> R (*)(A...)
    {
        return reinterpret_cast<R (*)(A...)>(realFunction(reinterpret_cast<void (*)()>(function)));
    }

    /// All calls, in the order in which they began.
    std::vector<RecordedCall> calls() const;
    std::vector<RecordedCall> calls(const std::string& function) const;
    /// The one call of this function; throws when there were none or several.
    RecordedCall only(const std::string& function) const;
    std::size_t count(const std::string& function) const { return calls(function).size(); }
    std::vector<std::string> names() const;

    /// Blocks until so many calls of this function have begun; throws when `kDeadline` passes.
    void waitForCalls(const std::string& function, std::size_t count) const;
    /// Blocks until so many have returned.
    void waitForReturns(const std::string& function, std::size_t count) const;

    /// The iterator of ldap_first_attribute, which is no leak to whoever keeps it on purpose, may stay
    /// unfreed.
    void mayKeepAttributeIterators();

    /// Takes what was done wrong so far, with what is handed out and not freed yet.
    std::vector<std::string> takeProblems();

    struct State;

    /// Every instruction for one function.
    template <class R, class... A>
    struct Plan
    {
        struct Outcome
        {
            Occasion occasion;
            /// Empty when only `errno` is set.
            std::function<R(A...)> instead;
        };
        std::function<R(A...)> replacement;
        std::vector<Outcome> outcomes;
    };

private:
    using AnyFunction = void (*)();

    static AnyFunction realFunction(AnyFunction function);
    std::mutex& mutex() const;
    void waitFor(
        const std::map<std::string, int>& counts, const std::string& function, std::size_t count) const;
    std::shared_ptr<void>& planSlot(AnyFunction function);

    template <class R, class... A>
    Plan<R, A...>& plan(R (*function)(A...))
    {
        auto& slot = planSlot(reinterpret_cast<AnyFunction>(function));
        if (!slot)
            slot = std::make_shared<Plan<R, A...>>();
        return *static_cast<Plan<R, A...>*>(slot.get());
    }

    std::shared_ptr<State> m_state;
};

} // namespace tavo::test
