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
    /// Stands for a connection handle: they are numbered from 1 as they are seen.
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
    /// An opaque pointer: a message, an iterator.
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
    /// By the names in libldap's manual pages. What a call returns through a pointer is added when it has
    /// returned.
    std::map<std::string, Value> arguments;
    /// Empty until the call has returned. A pointer counts as 1, a null pointer as 0.
    std::optional<std::int64_t> result;
    /// `errno` as the caller finds it.
    int error = 0;

    /// Each throws, naming the argument, when there is no such argument or it is of another kind.
    bool isNull(const std::string& argument) const;
    std::int64_t number(const std::string& argument) const;
    Bytes text(const std::string& argument) const;
    std::vector<Bytes> texts(const std::string& argument) const;
    std::vector<Control> controls(const std::string& argument) const;
    Time time(const std::string& argument) const;
    /// The number of the connection handle that the call was given.
    int handle() const;
};

std::string describe(const RecordedCall& call);

/// The calls of a function to which an instruction applies, and what they leave in `errno`.
struct Occasion
{
    /// The n-th call since the recorder was made, counted from 1; 0 means every call.
    int nth = 0;
    std::optional<int> error = std::nullopt;
};

/// Records what a program linked with `tavo_wrap_libldap(target)` calls of libldap, liblber and OpenSSL's
/// error queue, changes the outcome of those calls, and tracks everything that libldap allocates for them.
///
///     CallRecorder recorder;
///     recorder.fail(ldap_search_ext, LDAP_SERVER_DOWN, {.nth = 2, .error = ECONNRESET});
///     recorder.fail(ldap_get_dn, nullptr, {.nth = 3});
///     ...
///     EXPECT_THAT(recorder.names(), ElementsAre("ERR_clear_error", "ldap_initialize", ...));
///     EXPECT_EQ(recorder.only("ldap_search_ext").text("base"), "dc=x");
///
/// Without instructions a call goes through to the real function; without a recorder it isn't recorded
/// either. There is one recorder at a time. It may be used from any thread; calls that begin during its
/// lifetime must return before it is destroyed.
///
/// Everything allocated during the recorder's lifetime has to be freed once, by the function meant for it,
/// before the recorder is destroyed; otherwise the test fails. A second free is reported, not carried out.
class CallRecorder
{
public:
    CallRecorder();
    /// Reports, as failures of the running test, the problems that the test has not taken.
    ~CallRecorder();
    CallRecorder(const CallRecorder&) = delete;
    CallRecorder& operator=(const CallRecorder&) = delete;

    /// The call is not carried out and returns `result`; its output arguments are left alone. A function that
    /// frees something still frees it, as the real one does when it fails.
    template <class R, class... A>
    void fail(R (*function)(A...), std::type_identity_t<R> result, Occasion occasion = {})
    {
        const std::lock_guard lock(mutex());
        plan(function).outcomes.push_back({occasion, [result](A...) { return result; }});
    }

    /// The call is carried out, and leaves `error` in `errno` whatever its outcome.
    template <class R, class... A>
    void leaveErrno(R (*function)(A...), int error, int nth = 0)
    {
        const std::lock_guard lock(mutex());
        plan(function).outcomes.push_back({{.nth = nth, .error = error}, {}});
    }

    /// Every function that frees something leaves this value in `errno`, which exposes code that reads
    /// `errno` too late.
    void leaveErrnoWhenFreeing(int error);

    /// Calls `replacement` in place of the function; it may call `real(function)`.
    template <class R, class... A>
    void replace(R (*function)(A...), std::type_identity_t<std::function<R(A...)>> replacement)
    {
        const std::lock_guard lock(mutex());
        plan(function).replacement = std::move(replacement);
    }

    /// The library's own function.
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

    /// Blocks until `count` calls of this function have begun; throws when `kDeadline` passes.
    void waitForCalls(const std::string& function, std::size_t count) const;
    /// The same, until they have returned.
    void waitForReturns(const std::string& function, std::size_t count) const;

    /// The iterators of ldap_first_attribute may stay unfreed, for code that keeps them on purpose.
    void mayKeepAttributeIterators();

    /// Takes the problems so far, including everything that is allocated and not freed yet.
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
