#include "support/call_recorder.h"

#include <gtest/gtest.h>
#include <lber.h>
#include <ldap.h>
#include <openldap.h>
#include <openssl/err.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <set>
#include <stdexcept>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

// The linker sends every call of `name` to `__wrap_name` and makes the original reachable as `__real_name`;
// the same names stand in wrap_libldap.cmake.
#define TAVO_WRAPPED_FUNCTIONS(X)                                                                            \
    X(ERR_clear_error)                                                                                       \
    X(ERR_error_string)                                                                                      \
    X(ERR_get_error)                                                                                         \
    X(ber_bvfree)                                                                                            \
    X(ber_free)                                                                                              \
    X(ber_mem2bv)                                                                                            \
    X(ber_memfree)                                                                                           \
    X(ber_memvfree)                                                                                          \
    X(ber_sockbuf_add_io)                                                                                    \
    X(ber_sockbuf_ctrl)                                                                                      \
    X(ber_strdup)                                                                                            \
    X(ldap_control_find)                                                                                     \
    X(ldap_control_free)                                                                                     \
    X(ldap_controls_free)                                                                                    \
    X(ldap_count_values_len)                                                                                 \
    X(ldap_create_page_control)                                                                              \
    X(ldap_destroy)                                                                                          \
    X(ldap_dnfree)                                                                                           \
    X(ldap_dup)                                                                                              \
    X(ldap_err2string)                                                                                       \
    X(ldap_first_attribute)                                                                                  \
    X(ldap_first_entry)                                                                                      \
    X(ldap_first_reference)                                                                                  \
    X(ldap_free_urldesc)                                                                                     \
    X(ldap_get_dn)                                                                                           \
    X(ldap_get_option)                                                                                       \
    X(ldap_get_values_len)                                                                                   \
    X(ldap_init_fd)                                                                                          \
    X(ldap_initialize)                                                                                       \
    X(ldap_install_tls)                                                                                      \
    X(ldap_is_ldaps_url)                                                                                     \
    X(ldap_memfree)                                                                                          \
    X(ldap_memvfree)                                                                                         \
    X(ldap_msgfree)                                                                                          \
    X(ldap_next_attribute)                                                                                   \
    X(ldap_next_entry)                                                                                       \
    X(ldap_next_reference)                                                                                   \
    X(ldap_parse_pageresponse_control)                                                                       \
    X(ldap_parse_reference)                                                                                  \
    X(ldap_parse_result)                                                                                     \
    X(ldap_rdn2str)                                                                                          \
    X(ldap_result)                                                                                           \
    X(ldap_sasl_bind_s)                                                                                      \
    X(ldap_search_ext)                                                                                       \
    X(ldap_search_ext_s)                                                                                     \
    X(ldap_set_option)                                                                                       \
    X(ldap_set_urllist_proc)                                                                                 \
    X(ldap_start_tls_s)                                                                                      \
    X(ldap_str2dn)                                                                                           \
    X(ldap_tls_inplace)                                                                                      \
    X(ldap_url_parse)                                                                                        \
    X(ldap_value_free_len)                                                                                   \
    X(ldap_whoami_s)                                                                                         \
    X(nanosleep)

extern "C" {
#define TAVO_DECLARE_REAL(name) decltype(name) __real_##name;
TAVO_WRAPPED_FUNCTIONS(TAVO_DECLARE_REAL)
#undef TAVO_DECLARE_REAL
}

namespace tavo::test {

namespace {

using Value = RecordedCall::Value;

constexpr const char* kAttributeIterator = "the iterator of ldap_first_attribute";

/// Hides an attribute iterator from LeakSanitizer: the recorder tracks it itself.
void leaveToRecorder([[maybe_unused]] const BerElement* iterator)
{
#ifdef __SANITIZE_ADDRESS__
    __lsan_ignore_object(iterator);
#endif
}

Value textValue(const char* text) { return text ? Value(Bytes(text)) : Value(nullptr); }

Value bytesValue(const berval* bytes)
{
    if (!bytes)
        return nullptr;
    return bytes->bv_val ? Bytes(bytes->bv_val, bytes->bv_len) : Bytes();
}

Value textsValue(char* const* texts)
{
    if (!texts)
        return nullptr;
    std::vector<Bytes> copies;
    for (; *texts; ++texts)
        copies.emplace_back(*texts);
    return copies;
}

Control copyOf(const LDAPControl& control)
{
    Control copy{control.ldctl_oid, control.ldctl_iscritical != 0, std::nullopt};
    if (control.ldctl_value.bv_val)
        copy.value = Bytes(control.ldctl_value.bv_val, control.ldctl_value.bv_len);
    return copy;
}

Value controlsValue(LDAPControl* const* controls)
{
    if (!controls)
        return nullptr;
    std::vector<Control> copies;
    for (; *controls; ++controls)
        copies.push_back(copyOf(**controls));
    return copies;
}

Value controlValue(const LDAPControl* control)
{
    return control ? Value(std::vector{copyOf(*control)}) : Value(nullptr);
}

Value timeValue(const timeval* time)
{
    return time ? Value(RecordedCall::Time{time->tv_sec, time->tv_usec}) : Value(nullptr);
}

Value opaqueValue(const void* address)
{
    return address ? Value(RecordedCall::Opaque{address}) : Value(nullptr);
}

Value numberValue(std::int64_t number) { return number; }

enum class OptionKind
{
    number,
    text,
    bytes,
    time,
    opaque
};

OptionKind kindOfOption(int option)
{
    switch (option) {
    case LDAP_OPT_DEREF:
    case LDAP_OPT_SIZELIMIT:
    case LDAP_OPT_TIMELIMIT:
    case LDAP_OPT_PROTOCOL_VERSION:
    case LDAP_OPT_RESULT_CODE:
    case LDAP_OPT_DEBUG_LEVEL:
    case LDAP_OPT_DESC:
    case LDAP_OPT_X_TLS_REQUIRE_CERT:
    case LDAP_OPT_X_TLS_NEWCTX:
    case LDAP_OPT_X_TLS_PROTOCOL_MIN:
    case LDAP_OPT_X_TLS_PROTOCOL_MAX:
    case LDAP_OPT_X_TLS:
        return OptionKind::number;
    case LDAP_OPT_URI:
    case LDAP_OPT_HOST_NAME:
    case LDAP_OPT_DIAGNOSTIC_MESSAGE:
    case LDAP_OPT_MATCHED_DN:
    case LDAP_OPT_X_TLS_CACERTFILE:
    case LDAP_OPT_X_TLS_CACERTDIR:
    case LDAP_OPT_X_TLS_CERTFILE:
    case LDAP_OPT_X_TLS_KEYFILE:
    case LDAP_OPT_X_TLS_CIPHER_SUITE:
    case LDAP_OPT_X_TLS_ECNAME:
    case LDAP_OPT_X_TLS_CRLFILE:
    case LDAP_OPT_X_TLS_PACKAGE:
        return OptionKind::text;
    case LDAP_OPT_X_TLS_CACERT:
    case LDAP_OPT_X_TLS_CERT:
    case LDAP_OPT_X_TLS_KEY:
        return OptionKind::bytes;
    case LDAP_OPT_TIMEOUT:
    case LDAP_OPT_NETWORK_TIMEOUT:
        return OptionKind::time;
    default:
        return OptionKind::opaque; // among them the switches, which are on or off by being null or not
    }
}

Value optionToSet(int option, const void* value)
{
    if (!value)
        return nullptr;
    switch (kindOfOption(option)) {
    case OptionKind::number:
        return numberValue(*static_cast<const int*>(value));
    case OptionKind::text:
        return textValue(static_cast<const char*>(value));
    case OptionKind::bytes:
        return bytesValue(static_cast<const berval*>(value));
    case OptionKind::time:
        return timeValue(static_cast<const timeval*>(value));
    case OptionKind::opaque:
        break;
    }
    return opaqueValue(value);
}

struct ValuePrinter
{
    std::string operator()(std::nullptr_t) const { return "null"; }
    std::string operator()(std::int64_t number) const { return std::to_string(number); }
    std::string operator()(const Bytes& bytes) const { return "\"" + printable(bytes) + "\""; }
    std::string operator()(const std::vector<Bytes>& list) const
    {
        std::string text;
        for (const auto& bytes : list)
            text += (text.empty() ? "" : ", ") + printable(bytes);
        return "[" + text + "]";
    }
    std::string operator()(const std::vector<Control>& list) const
    {
        std::string text;
        for (const auto& control : list)
            text += (text.empty() ? "" : ", ") + describe(control);
        return "[" + text + "]";
    }
    std::string operator()(RecordedCall::HandleNumber handle) const
    {
        return "handle " + std::to_string(handle.number);
    }
    std::string operator()(RecordedCall::Time time) const
    {
        return std::to_string(time.seconds) + " s + " + std::to_string(time.fraction);
    }
    std::string operator()(RecordedCall::Opaque) const { return "pointer"; }
};

template <class Kind>
const Kind& argumentAs(const RecordedCall& call, const std::string& name)
{
    const auto found = call.arguments.find(name);
    const auto* value = found == call.arguments.end() ? nullptr : std::get_if<Kind>(&found->second);
    if (!value)
        throw std::runtime_error("no such kind of argument \"" + name + "\" in " + describe(call));
    return *value;
}

/// Tracks what libldap has allocated and the caller has to free.
class Ledger
{
public:
    struct Resource
    {
        std::string what;
        std::vector<std::string> freedBy;
        std::optional<std::size_t> size;
    };

    void add(const void* address, Resource resource)
    {
        if (!address)
            return;
        m_freed.erase(address);
        m_resources[address] = std::move(resource);
    }

    /// Null when it is not, or no longer, tracked.
    const Resource* find(const void* address) const
    {
        const auto found = m_resources.find(address);
        return found == m_resources.end() ? nullptr : &found->second;
    }

    /// Returns false when carrying it out would be a second free.
    bool free(const void* address, const std::string& function)
    {
        if (!address)
            return true;
        if (const auto freed = m_freed.find(address); freed != m_freed.end()) {
            m_problems.push_back(function + " of " + freed->second + ", which had been freed before");
            return false;
        }
        const auto* resource = find(address);
        if (!resource) {
            m_problems.push_back(function + " of something that was never handed out");
            return true;
        }
        const auto& right = resource->freedBy;
        if (std::find(right.begin(), right.end(), function) == right.end())
            m_problems.push_back(function + " of " + resource->what + ", which is for " + right.front());
        m_freed[address] = resource->what;
        m_resources.erase(address);
        return true;
    }

    std::vector<std::string> takeProblems(const std::set<std::string>& kept)
    {
        auto problems = std::exchange(m_problems, {});
        for (const auto& [address, resource] : std::exchange(m_resources, {})) {
            if (kept.count(resource.what) == 0)
                problems.push_back("never freed: " + resource.what);
        }
        return problems;
    }

private:
    std::map<const void*, Resource> m_resources;
    std::map<const void*, std::string> m_freed;
    std::vector<std::string> m_problems;
};

} // namespace

struct CallRecorder::State
{
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<RecordedCall> calls;
    std::map<std::string, int> counts;
    std::map<std::string, int> returns;
    std::map<AnyFunction, std::shared_ptr<void>> plans;
    std::map<const LDAP*, int> handles;
    int lastHandle = 0;
    Ledger ledger;
    std::set<std::string> kept;
    std::optional<int> errnoWhenFreeing;

    /// Known by number from the first time it is seen; a new one at an old address gets a number of its own.
    Value handleValue(const LDAP* ld)
    {
        if (!ld)
            return nullptr;
        const auto [known, isNew] = handles.try_emplace(ld, lastHandle + 1);
        if (isNew)
            ++lastHandle;
        return RecordedCall::HandleNumber{known->second};
    }
};

namespace {

std::mutex& activeMutex()
{
    static std::mutex mutex;
    return mutex;
}

std::shared_ptr<CallRecorder::State>& activeState()
{
    static std::shared_ptr<CallRecorder::State> state;
    return state;
}

std::shared_ptr<CallRecorder::State> currentState()
{
    const std::lock_guard lock(activeMutex());
    return activeState();
}

/// Leaves the caller the errno that the call itself has left, after all that is done for the record.
struct ErrnoKeeper
{
    int value = errno;
    ErrnoKeeper() = default;
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
    ~ErrnoKeeper() { errno = value; }
};

/// What a call returned: a number or an address.
struct Returned
{
    std::int64_t number = 0;
    const void* address = nullptr;
};

template <class R>
Returned returnedValue(R result)
{
    if constexpr (std::is_pointer_v<R>)
        return {result ? 1 : 0, result};
    else
        return {static_cast<std::int64_t>(result), nullptr};
}

/// Where the results of a call that has come back are put down.
class Results
{
public:
    Results(CallRecorder::State& state, std::size_t index, Returned returned)
        : m_state(state)
        , m_index(index)
        , m_returned(returned)
    {}

    const void* returned() const { return m_returned.address; }
    bool isZero() const { return m_returned.number == 0; }
    void add(const char* name, Value value) { m_state.calls[m_index].arguments[name] = std::move(value); }
    void handsOut(const void* address, const char* what, std::vector<std::string> freedBy,
        std::optional<std::size_t> size = std::nullopt)
    {
        m_state.ledger.add(address, {what, std::move(freedBy), size});
    }
    void handsOutHandle(LDAP* ld, const char* what)
    {
        if (!ld)
            return;
        m_state.handles.erase(ld);
        add("new", m_state.handleValue(ld));
        handsOut(ld, what, {"ldap_destroy"});
    }

private:
    CallRecorder::State& m_state;
    std::size_t m_index;
    Returned m_returned;
};

/// One call on its way through the recorder.
template <class R, class... A>
class Interception
{
public:
    Interception(const char* name, R (*wrapped)(A...), R (*real)(A...))
        : m_state(currentState())
        , m_wrapped(wrapped)
        , m_real(real)
    {
        m_call.function = name;
        m_call.thread = std::this_thread::get_id();
    }

    Interception& handle(LDAP* ld)
    {
        if (!m_state)
            return *this;
        const std::lock_guard lock(m_state->mutex);
        m_call.arguments["ld"] = m_state->handleValue(ld);
        return *this;
    }

    template <class Make>
    Interception& argument(const char* name, Make make)
    {
        if (m_state)
            m_call.arguments[name] = make();
        return *this;
    }

    /// The call frees `address`; `anyway` does only that, for when the call is told to fail.
    Interception& frees(const void* address, std::function<void()> anyway)
    {
        m_freed = address;
        m_isFreeing = true;
        m_freeAnyway = std::move(anyway);
        return *this;
    }

    /// What is put down when the function itself, or its replacement, has returned.
    Interception& afterwards(std::function<void(Results&)> receive)
    {
        m_receive = std::move(receive);
        return *this;
    }

    R call(A... arguments)
    {
        if (!m_state)
            return keepErrno([&] { return m_real(arguments...); });
        if (!begin())
            return R();
        if constexpr (std::is_void_v<R>) {
            carryOut(arguments...);
            end({});
        } else {
            const R result = carryOut(arguments...);
            end(returnedValue(result));
            return result;
        }
    }

private:
    template <class Function>
    R keepErrno(Function function)
    {
        errno = m_errno.value;
        if constexpr (std::is_void_v<R>) {
            function();
            m_errno.value = errno;
        } else {
            const R result = function();
            m_errno.value = errno;
            return result;
        }
    }

    /// Returns false when the call must not be carried out.
    bool begin()
    {
        const std::lock_guard lock(m_state->mutex);
        if (const auto* resource = m_freed ? m_state->ledger.find(m_freed) : nullptr;
            resource && resource->size)
            m_call.arguments["content"] = Bytes(static_cast<const char*>(m_freed), *resource->size);
        const int number = ++m_state->counts[m_call.function];
        choose(number);
        m_index = m_state->calls.size();
        m_state->calls.push_back(m_call);
        m_state->changed.notify_all();
        return !m_isFreeing || m_state->ledger.free(m_freed, m_call.function);
    }

    void choose(int number)
    {
        if (m_isFreeing)
            m_error = m_state->errnoWhenFreeing;
        const auto found = m_state->plans.find(reinterpret_cast<void (*)()>(m_wrapped));
        if (found == m_state->plans.end())
            return;
        const auto& plan = *static_cast<CallRecorder::Plan<R, A...>*>(found->second.get());
        m_replacement = plan.replacement;
        for (const auto& outcome : plan.outcomes) {
            if (outcome.occasion.nth != 0 && outcome.occasion.nth != number)
                continue;
            if (outcome.instead)
                m_instead = outcome.instead;
            if (outcome.occasion.error)
                m_error = outcome.occasion.error;
        }
    }

    R carryOut(A... arguments)
    {
        return keepErrno([&]() -> R {
            if (m_instead && m_freeAnyway)
                m_freeAnyway();
            if (m_instead)
                return m_instead(arguments...);
            return m_replacement ? m_replacement(arguments...) : m_real(arguments...);
        });
    }

    void end(Returned returned)
    {
        m_errno.value = m_error.value_or(m_errno.value);
        const std::lock_guard lock(m_state->mutex);
        m_state->calls[m_index].result = returned.number;
        m_state->calls[m_index].error = m_errno.value;
        ++m_state->returns[m_call.function];
        m_state->changed.notify_all();
        Results results(*m_state, m_index, returned);
        if (m_receive && !m_instead)
            m_receive(results);
    }

    ErrnoKeeper m_errno; // the first member, so that it is the last to go
    std::shared_ptr<CallRecorder::State> m_state;
    R (*m_wrapped)(A...);
    R (*m_real)(A...);
    RecordedCall m_call;
    std::size_t m_index = 0;
    const void* m_freed = nullptr;
    bool m_isFreeing = false;
    std::function<void()> m_freeAnyway;
    std::function<void(Results&)> m_receive;
    std::function<R(A...)> m_instead;
    std::function<R(A...)> m_replacement;
    std::optional<int> m_error;
};

/// Everything that a search request says, the same for both ways of sending one.
template <class Intercepted>
Intercepted& searchArguments(Intercepted& intercepted, LDAP* ld, const char* base, int scope,
    const char* filter, char** attributes, int attributesOnly, LDAPControl** serverControls,
    LDAPControl** clientControls, timeval* timeout, int sizeLimit)
{
    return intercepted.handle(ld)
        .argument("base", [&] { return textValue(base); })
        .argument("scope", [&] { return numberValue(scope); })
        .argument("filter", [&] { return textValue(filter); })
        .argument("attrs", [&] { return textsValue(attributes); })
        .argument("attrsonly", [&] { return numberValue(attributesOnly); })
        .argument("serverctrls", [&] { return controlsValue(serverControls); })
        .argument("clientctrls", [&] { return controlsValue(clientControls); })
        .argument("timeout", [&] { return timeValue(timeout); })
        .argument("sizelimit", [&] { return numberValue(sizeLimit); });
}

} // namespace

bool RecordedCall::isNull(const std::string& argument) const
{
    const auto found = arguments.find(argument);
    if (found == arguments.end())
        throw std::runtime_error("no argument \"" + argument + "\" in " + describe(*this));
    return std::holds_alternative<std::nullptr_t>(found->second);
}

std::int64_t RecordedCall::number(const std::string& argument) const
{
    return argumentAs<std::int64_t>(*this, argument);
}

Bytes RecordedCall::text(const std::string& argument) const { return argumentAs<Bytes>(*this, argument); }

std::vector<Bytes> RecordedCall::texts(const std::string& argument) const
{
    return argumentAs<std::vector<Bytes>>(*this, argument);
}

std::vector<Control> RecordedCall::controls(const std::string& argument) const
{
    return argumentAs<std::vector<Control>>(*this, argument);
}

RecordedCall::Time RecordedCall::time(const std::string& argument) const
{
    return argumentAs<Time>(*this, argument);
}

int RecordedCall::handle() const { return argumentAs<HandleNumber>(*this, "ld").number; }

std::string describe(const RecordedCall& call)
{
    std::string text;
    for (const auto& [name, value] : call.arguments)
        text += (text.empty() ? "" : ", ") + name + "=" + std::visit(ValuePrinter(), value);
    const std::string result = call.result ? std::to_string(*call.result) : "not returned";
    return call.function + "(" + text + ") = " + result;
}

CallRecorder::CallRecorder()
    : m_state(std::make_shared<State>())
{
    const std::lock_guard lock(activeMutex());
    if (activeState())
        throw std::logic_error("there is a call recorder already");
    activeState() = m_state;
}

CallRecorder::~CallRecorder()
{
    {
        const std::lock_guard lock(activeMutex());
        activeState() = nullptr;
    }
    for (const auto& problem : takeProblems())
        ADD_FAILURE() << "call recorder: " << problem;
}

void CallRecorder::leaveErrnoWhenFreeing(int error)
{
    const std::lock_guard lock(m_state->mutex);
    m_state->errnoWhenFreeing = error;
}

std::vector<RecordedCall> CallRecorder::calls() const
{
    const std::lock_guard lock(m_state->mutex);
    return m_state->calls;
}

std::vector<RecordedCall> CallRecorder::calls(const std::string& function) const
{
    auto all = calls();
    all.erase(
        std::remove_if(all.begin(), all.end(), [&](const auto& call) { return call.function != function; }),
        all.end());
    return all;
}

RecordedCall CallRecorder::only(const std::string& function) const
{
    const auto found = calls(function);
    if (found.size() != 1)
        throw std::runtime_error(function + " was called " + std::to_string(found.size()) + " times");
    return found.front();
}

std::vector<std::string> CallRecorder::names() const
{
    std::vector<std::string> names;
    for (const auto& call : calls())
        names.push_back(call.function);
    return names;
}

void CallRecorder::waitForCalls(const std::string& function, std::size_t count) const
{
    waitFor(m_state->counts, function, count);
}

void CallRecorder::waitForReturns(const std::string& function, std::size_t count) const
{
    waitFor(m_state->returns, function, count);
}

void CallRecorder::waitFor(
    const std::map<std::string, int>& counts, const std::string& function, std::size_t count) const
{
    std::unique_lock lock(m_state->mutex);
    const auto enough = [&] {
        const auto found = counts.find(function);
        return count == 0 || (found != counts.end() && static_cast<std::size_t>(found->second) >= count);
    };
    if (!m_state->changed.wait_for(lock, kDeadline, enough))
        throw std::runtime_error("waited in vain for " + std::to_string(count) + " calls of " + function);
}

void CallRecorder::mayKeepAttributeIterators()
{
    const std::lock_guard lock(m_state->mutex);
    m_state->kept.insert(kAttributeIterator);
}

std::vector<std::string> CallRecorder::takeProblems()
{
    const std::lock_guard lock(m_state->mutex);
    return m_state->ledger.takeProblems(m_state->kept);
}

CallRecorder::AnyFunction CallRecorder::realFunction(AnyFunction function)
{
#define TAVO_PAIR(name) {reinterpret_cast<AnyFunction>(name), reinterpret_cast<AnyFunction>(__real_##name)},
    static const std::map<AnyFunction, AnyFunction> kReal{TAVO_WRAPPED_FUNCTIONS(TAVO_PAIR)};
#undef TAVO_PAIR
    return kReal.at(function);
}

std::mutex& CallRecorder::mutex() const { return m_state->mutex; }

std::shared_ptr<void>& CallRecorder::planSlot(AnyFunction function)
{
    realFunction(function); // throws for a function that is not recorded
    return m_state->plans[function];
}

} // namespace tavo::test

using namespace tavo::test;

#define TAVO_INTERCEPT(name) Interception(#name, name, __real_##name)

extern "C" {
#define TAVO_DECLARE_WRAP(name) decltype(name) __wrap_##name;
TAVO_WRAPPED_FUNCTIONS(TAVO_DECLARE_WRAP)
#undef TAVO_DECLARE_WRAP

// Handles

int __wrap_ldap_initialize(LDAP** ld, const char* uri)
{
    return TAVO_INTERCEPT(ldap_initialize)
        .argument("uri", [&] { return textValue(uri); })
        .afterwards([&](Results& results) { results.handsOutHandle(*ld, "a handle of ldap_initialize"); })
        .call(ld, uri);
}

int __wrap_ldap_init_fd(ber_socket_t socket, int protocol, const char* url, LDAP** ld)
{
    return TAVO_INTERCEPT(ldap_init_fd)
        .argument("proto", [&] { return numberValue(protocol); })
        .argument("url", [&] { return textValue(url); })
        .afterwards([&](Results& results) { results.handsOutHandle(*ld, "a handle of ldap_init_fd"); })
        .call(socket, protocol, url, ld);
}

LDAP* __wrap_ldap_dup(LDAP* old)
{
    return TAVO_INTERCEPT(ldap_dup)
        .handle(old)
        .afterwards([](Results& results) {
            auto* const made = const_cast<void*>(results.returned());
            results.handsOutHandle(static_cast<LDAP*>(made), "a handle of ldap_dup");
        })
        .call(old);
}

int __wrap_ldap_destroy(LDAP* ld)
{
    return TAVO_INTERCEPT(ldap_destroy).handle(ld).frees(ld, [&] { __real_ldap_destroy(ld); }).call(ld);
}

int __wrap_ldap_set_option(LDAP* ld, int option, const void* value)
{
    return TAVO_INTERCEPT(ldap_set_option)
        .handle(ld)
        .argument("option", [&] { return numberValue(option); })
        .argument("invalue", [&] { return optionToSet(option, value); })
        .call(ld, option, value);
}

int __wrap_ldap_set_urllist_proc(LDAP* ld, LDAP_URLLIST_PROC* function, void* parameters)
{
    return TAVO_INTERCEPT(ldap_set_urllist_proc)
        .handle(ld)
        .argument("proc", [&] { return opaqueValue(reinterpret_cast<const void*>(function)); })
        .argument("params", [&] { return opaqueValue(parameters); })
        .call(ld, function, parameters);
}

int __wrap_ldap_get_option(LDAP* ld, int option, void* value)
{
    return TAVO_INTERCEPT(ldap_get_option)
        .handle(ld)
        .argument("option", [&] { return numberValue(option); })
        .afterwards([&](Results& results) {
            if (!results.isZero())
                return;
            switch (kindOfOption(option)) {
            case OptionKind::number:
                results.add("outvalue", numberValue(*static_cast<int*>(value)));
                break;
            case OptionKind::text:
                results.add("outvalue", textValue(*static_cast<char**>(value)));
                results.handsOut(*static_cast<char**>(value), "a text of ldap_get_option", {"ldap_memfree"});
                break;
            case OptionKind::bytes:
                results.add("outvalue", bytesValue(static_cast<berval*>(value)));
                results.handsOut(static_cast<berval*>(value)->bv_val, "the bytes of ldap_get_option",
                    {"ber_memfree", "ldap_memfree"});
                break;
            case OptionKind::time:
            case OptionKind::opaque:
                break;
            }
        })
        .call(ld, option, value);
}

// Requests

int __wrap_ldap_start_tls_s(LDAP* ld, LDAPControl** serverControls, LDAPControl** clientControls)
{
    return TAVO_INTERCEPT(ldap_start_tls_s)
        .handle(ld)
        .argument("serverctrls", [&] { return controlsValue(serverControls); })
        .argument("clientctrls", [&] { return controlsValue(clientControls); })
        .call(ld, serverControls, clientControls);
}

int __wrap_ldap_install_tls(LDAP* ld) { return TAVO_INTERCEPT(ldap_install_tls).handle(ld).call(ld); }

int __wrap_ldap_tls_inplace(LDAP* ld) { return TAVO_INTERCEPT(ldap_tls_inplace).handle(ld).call(ld); }

int __wrap_ldap_sasl_bind_s(LDAP* ld, const char* dn, const char* mechanism, berval* credentials,
    LDAPControl** serverControls, LDAPControl** clientControls, berval** serverCredentials)
{
    return TAVO_INTERCEPT(ldap_sasl_bind_s)
        .handle(ld)
        .argument("dn", [&] { return textValue(dn); })
        .argument("mechanism", [&] { return textValue(mechanism); })
        .argument("cred", [&] { return bytesValue(credentials); })
        .argument("serverctrls", [&] { return controlsValue(serverControls); })
        .argument("clientctrls", [&] { return controlsValue(clientControls); })
        .argument("servercredp", [&] { return opaqueValue(serverCredentials); })
        .afterwards([&](Results& results) {
            if (serverCredentials)
                results.handsOut(*serverCredentials, "the credentials of ldap_sasl_bind_s", {"ber_bvfree"});
        })
        .call(ld, dn, mechanism, credentials, serverControls, clientControls, serverCredentials);
}

int __wrap_ldap_whoami_s(
    LDAP* ld, berval** identity, LDAPControl** serverControls, LDAPControl** clientControls)
{
    return TAVO_INTERCEPT(ldap_whoami_s)
        .handle(ld)
        .argument("serverctrls", [&] { return controlsValue(serverControls); })
        .argument("clientctrls", [&] { return controlsValue(clientControls); })
        .afterwards([&](Results& results) {
            results.add("authzid", bytesValue(*identity));
            results.handsOut(*identity, "the identity of ldap_whoami_s", {"ber_bvfree"});
        })
        .call(ld, identity, serverControls, clientControls);
}

int __wrap_ldap_search_ext(LDAP* ld, const char* base, int scope, const char* filter, char** attributes,
    int attributesOnly, LDAPControl** serverControls, LDAPControl** clientControls, timeval* timeout,
    int sizeLimit, int* messageId)
{
    auto intercepted = TAVO_INTERCEPT(ldap_search_ext);
    return searchArguments(intercepted, ld, base, scope, filter, attributes, attributesOnly, serverControls,
        clientControls, timeout, sizeLimit)
        .afterwards([&](Results& results) { results.add("msgid", numberValue(*messageId)); })
        .call(ld, base, scope, filter, attributes, attributesOnly, serverControls, clientControls, timeout,
            sizeLimit, messageId);
}

int __wrap_ldap_search_ext_s(LDAP* ld, const char* base, int scope, const char* filter, char** attributes,
    int attributesOnly, LDAPControl** serverControls, LDAPControl** clientControls, timeval* timeout,
    int sizeLimit, LDAPMessage** chain)
{
    auto intercepted = TAVO_INTERCEPT(ldap_search_ext_s);
    return searchArguments(intercepted, ld, base, scope, filter, attributes, attributesOnly, serverControls,
        clientControls, timeout, sizeLimit)
        .afterwards([&](Results& results) {
            results.handsOut(
                *chain, "the result of ldap_search_ext_s", {"ldap_msgfree", "ldap_parse_result"});
        })
        .call(ld, base, scope, filter, attributes, attributesOnly, serverControls, clientControls, timeout,
            sizeLimit, chain);
}

int __wrap_ldap_result(LDAP* ld, int messageId, int all, timeval* timeout, LDAPMessage** chain)
{
    return TAVO_INTERCEPT(ldap_result)
        .handle(ld)
        .argument("msgid", [&] { return numberValue(messageId); })
        .argument("all", [&] { return numberValue(all); })
        .argument("timeout", [&] { return timeValue(timeout); })
        .afterwards([&](Results& results) {
            results.handsOut(*chain, "the result of ldap_result", {"ldap_msgfree", "ldap_parse_result"});
        })
        .call(ld, messageId, all, timeout, chain);
}

// Messages

int __wrap_ldap_parse_result(LDAP* ld, LDAPMessage* chain, int* code, char** matchedDn, char** diagnostic,
    char*** referrals, LDAPControl*** serverControls, int freeIt)
{
    auto intercepted = TAVO_INTERCEPT(ldap_parse_result);
    if (freeIt)
        intercepted.frees(chain, [&] { __real_ldap_msgfree(chain); });
    return intercepted.handle(ld)
        .argument("freeit", [&] { return numberValue(freeIt); })
        .afterwards([&](Results& results) {
            if (code)
                results.add("errcode", numberValue(*code));
            if (matchedDn)
                results.handsOut(
                    *matchedDn, "the matched DN of ldap_parse_result", {"ldap_memfree", "ber_memfree"});
            if (diagnostic)
                results.handsOut(
                    *diagnostic, "the diagnostic of ldap_parse_result", {"ldap_memfree", "ber_memfree"});
            if (referrals)
                results.handsOut(
                    *referrals, "the referrals of ldap_parse_result", {"ber_memvfree", "ldap_memvfree"});
            if (serverControls)
                results.handsOut(
                    *serverControls, "the controls of ldap_parse_result", {"ldap_controls_free"});
        })
        .call(ld, chain, code, matchedDn, diagnostic, referrals, serverControls, freeIt);
}

int __wrap_ldap_msgfree(LDAPMessage* chain)
{
    return TAVO_INTERCEPT(ldap_msgfree).frees(chain, [&] { __real_ldap_msgfree(chain); }).call(chain);
}

LDAPMessage* __wrap_ldap_first_entry(LDAP* ld, LDAPMessage* chain)
{
    return TAVO_INTERCEPT(ldap_first_entry).handle(ld).call(ld, chain);
}

LDAPMessage* __wrap_ldap_next_entry(LDAP* ld, LDAPMessage* entry)
{
    return TAVO_INTERCEPT(ldap_next_entry).handle(ld).call(ld, entry);
}

LDAPMessage* __wrap_ldap_first_reference(LDAP* ld, LDAPMessage* chain)
{
    return TAVO_INTERCEPT(ldap_first_reference).handle(ld).call(ld, chain);
}

LDAPMessage* __wrap_ldap_next_reference(LDAP* ld, LDAPMessage* reference)
{
    return TAVO_INTERCEPT(ldap_next_reference).handle(ld).call(ld, reference);
}

int __wrap_ldap_parse_reference(
    LDAP* ld, LDAPMessage* reference, char*** referrals, LDAPControl*** serverControls, int freeIt)
{
    auto intercepted = TAVO_INTERCEPT(ldap_parse_reference);
    if (freeIt)
        intercepted.frees(reference, [&] { __real_ldap_msgfree(reference); });
    return intercepted.handle(ld)
        .argument("freeit", [&] { return numberValue(freeIt); })
        .afterwards([&](Results& results) {
            results.add("referrals", textsValue(*referrals));
            results.handsOut(
                *referrals, "the referrals of ldap_parse_reference", {"ber_memvfree", "ldap_memvfree"});
            if (serverControls)
                results.handsOut(
                    *serverControls, "the controls of ldap_parse_reference", {"ldap_controls_free"});
        })
        .call(ld, reference, referrals, serverControls, freeIt);
}

char* __wrap_ldap_get_dn(LDAP* ld, LDAPMessage* entry)
{
    return TAVO_INTERCEPT(ldap_get_dn)
        .handle(ld)
        .afterwards([](Results& results) {
            results.handsOut(results.returned(), "the DN of ldap_get_dn", {"ldap_memfree"});
        })
        .call(ld, entry);
}

char* __wrap_ldap_first_attribute(LDAP* ld, LDAPMessage* entry, BerElement** iterator)
{
    char* name =
        TAVO_INTERCEPT(ldap_first_attribute)
            .handle(ld)
            .afterwards([&](Results& results) {
                results.handsOut(results.returned(), "the name of ldap_first_attribute", {"ldap_memfree"});
                results.handsOut(*iterator, kAttributeIterator, {"ber_free"});
            })
            .call(ld, entry, iterator);
    leaveToRecorder(*iterator);
    return name;
}

char* __wrap_ldap_next_attribute(LDAP* ld, LDAPMessage* entry, BerElement* iterator)
{
    return TAVO_INTERCEPT(ldap_next_attribute)
        .handle(ld)
        .afterwards([](Results& results) {
            results.handsOut(results.returned(), "the name of ldap_next_attribute", {"ldap_memfree"});
        })
        .call(ld, entry, iterator);
}

berval** __wrap_ldap_get_values_len(LDAP* ld, LDAPMessage* entry, const char* attribute)
{
    return TAVO_INTERCEPT(ldap_get_values_len)
        .handle(ld)
        .argument("attr", [&] { return textValue(attribute); })
        .afterwards([](Results& results) {
            results.handsOut(
                results.returned(), "the values of ldap_get_values_len", {"ldap_value_free_len"});
        })
        .call(ld, entry, attribute);
}

int __wrap_ldap_count_values_len(berval** values)
{
    return TAVO_INTERCEPT(ldap_count_values_len).call(values);
}

// Controls

LDAPControl* __wrap_ldap_control_find(const char* oid, LDAPControl** controls, LDAPControl*** next)
{
    return TAVO_INTERCEPT(ldap_control_find)
        .argument("oid", [&] { return textValue(oid); })
        .argument("ctrls", [&] { return controlsValue(controls); })
        .call(oid, controls, next);
}

int __wrap_ldap_create_page_control(
    LDAP* ld, ber_int_t pageSize, berval* cookie, int isCritical, LDAPControl** control)
{
    return TAVO_INTERCEPT(ldap_create_page_control)
        .handle(ld)
        .argument("pagesize", [&] { return numberValue(pageSize); })
        .argument("cookie", [&] { return bytesValue(cookie); })
        .argument("iscritical", [&] { return numberValue(isCritical); })
        .afterwards([&](Results& results) {
            results.add("ctrl", controlValue(*control));
            results.handsOut(*control, "the control of ldap_create_page_control", {"ldap_control_free"});
        })
        .call(ld, pageSize, cookie, isCritical, control);
}

int __wrap_ldap_parse_pageresponse_control(LDAP* ld, LDAPControl* control, ber_int_t* count, berval* cookie)
{
    return TAVO_INTERCEPT(ldap_parse_pageresponse_control)
        .handle(ld)
        .argument("ctrl", [&] { return controlValue(control); })
        .argument("count", [&] { return opaqueValue(count); })
        .afterwards([&](Results& results) {
            if (!results.isZero())
                return;
            results.add("cookie", bytesValue(cookie));
            results.handsOut(
                cookie->bv_val, "the cookie of ldap_parse_pageresponse_control", {"ber_memfree"});
        })
        .call(ld, control, count, cookie);
}

void __wrap_ldap_control_free(LDAPControl* control)
{
    TAVO_INTERCEPT(ldap_control_free)
        .frees(control, [&] { __real_ldap_control_free(control); })
        .call(control);
}

void __wrap_ldap_controls_free(LDAPControl** controls)
{
    TAVO_INTERCEPT(ldap_controls_free)
        .frees(controls, [&] { __real_ldap_controls_free(controls); })
        .call(controls);
}

// Memory

void __wrap_ldap_memfree(void* memory)
{
    TAVO_INTERCEPT(ldap_memfree).frees(memory, [&] { __real_ldap_memfree(memory); }).call(memory);
}

void __wrap_ldap_memvfree(void** memory)
{
    TAVO_INTERCEPT(ldap_memvfree).frees(memory, [&] { __real_ldap_memvfree(memory); }).call(memory);
}

void __wrap_ldap_value_free_len(berval** values)
{
    TAVO_INTERCEPT(ldap_value_free_len)
        .frees(values, [&] { __real_ldap_value_free_len(values); })
        .call(values);
}

void __wrap_ber_memfree(void* memory)
{
    TAVO_INTERCEPT(ber_memfree).frees(memory, [&] { __real_ber_memfree(memory); }).call(memory);
}

void __wrap_ber_memvfree(void** memory)
{
    TAVO_INTERCEPT(ber_memvfree).frees(memory, [&] { __real_ber_memvfree(memory); }).call(memory);
}

void __wrap_ber_bvfree(berval* bytes)
{
    TAVO_INTERCEPT(ber_bvfree).frees(bytes, [&] { __real_ber_bvfree(bytes); }).call(bytes);
}

void __wrap_ber_free(BerElement* element, int freeBuffer)
{
    TAVO_INTERCEPT(ber_free)
        .argument("freebuf", [&] { return numberValue(freeBuffer); })
        .frees(element, [&] { __real_ber_free(element, freeBuffer); })
        .call(element, freeBuffer);
}

int __wrap_ber_sockbuf_add_io(Sockbuf* connection, Sockbuf_IO* functions, int level, void* argument)
{
    return TAVO_INTERCEPT(ber_sockbuf_add_io)
        .argument("layer", [&] { return numberValue(level); })
        .argument("arg", [&] { return opaqueValue(argument); })
        .call(connection, functions, level, argument);
}

int __wrap_ber_sockbuf_ctrl(Sockbuf* connection, int option, void* value)
{
    return TAVO_INTERCEPT(ber_sockbuf_ctrl)
        .argument("opt", [&] { return numberValue(option); })
        .call(connection, option, value);
}

char* __wrap_ber_strdup(const char* text)
{
    return TAVO_INTERCEPT(ber_strdup)
        .argument("s", [&] { return textValue(text); })
        .afterwards([&](Results& results) {
            results.handsOut(
                results.returned(), "the copy of ber_strdup", {"ber_memfree"}, std::strlen(text));
        })
        .call(text);
}

berval* __wrap_ber_mem2bv(const char* memory, ber_len_t length, int duplicate, berval* bytes)
{
    return TAVO_INTERCEPT(ber_mem2bv)
        .argument("buf", [&] { return memory ? Value(Bytes(memory, length)) : Value(nullptr); })
        .argument("duplicate", [&] { return numberValue(duplicate); })
        .afterwards([&](Results& results) {
            if (bytes && duplicate)
                results.handsOut(bytes->bv_val, "the copy of ber_mem2bv", {"ber_memfree"}, length);
            if (!bytes)
                results.handsOut(results.returned(), "the berval of ber_mem2bv", {"ber_bvfree"});
        })
        .call(memory, length, duplicate, bytes);
}

// Texts

int __wrap_ldap_str2dn(const char* text, LDAPDN* dn, unsigned flags)
{
    return TAVO_INTERCEPT(ldap_str2dn)
        .argument("str", [&] { return textValue(text); })
        .argument("flags", [&] { return numberValue(flags); })
        .afterwards(
            [&](Results& results) { results.handsOut(*dn, "the DN of ldap_str2dn", {"ldap_dnfree"}); })
        .call(text, dn, flags);
}

int __wrap_ldap_rdn2str(LDAPRDN rdn, char** text, unsigned flags)
{
    return TAVO_INTERCEPT(ldap_rdn2str)
        .argument("flags", [&] { return numberValue(flags); })
        .afterwards(
            [&](Results& results) { results.handsOut(*text, "the text of ldap_rdn2str", {"ldap_memfree"}); })
        .call(rdn, text, flags);
}

void __wrap_ldap_dnfree(LDAPDN dn)
{
    TAVO_INTERCEPT(ldap_dnfree).frees(dn, [&] { __real_ldap_dnfree(dn); }).call(dn);
}

int __wrap_ldap_url_parse(const char* url, LDAPURLDesc** parsed)
{
    return TAVO_INTERCEPT(ldap_url_parse)
        .argument("url", [&] { return textValue(url); })
        .afterwards([&](Results& results) {
            results.handsOut(*parsed, "the URL of ldap_url_parse", {"ldap_free_urldesc"});
        })
        .call(url, parsed);
}

void __wrap_ldap_free_urldesc(LDAPURLDesc* url)
{
    TAVO_INTERCEPT(ldap_free_urldesc).frees(url, [&] { __real_ldap_free_urldesc(url); }).call(url);
}

char* __wrap_ldap_err2string(int code)
{
    return TAVO_INTERCEPT(ldap_err2string).argument("err", [&] { return numberValue(code); }).call(code);
}

int __wrap_ldap_is_ldaps_url(const char* url)
{
    return TAVO_INTERCEPT(ldap_is_ldaps_url).argument("url", [&] { return textValue(url); }).call(url);
}

// OpenSSL's error queue

void __wrap_ERR_clear_error() { TAVO_INTERCEPT(ERR_clear_error).call(); }

unsigned long __wrap_ERR_get_error() { return TAVO_INTERCEPT(ERR_get_error).call(); }

char* __wrap_ERR_error_string(unsigned long code, char* buffer)
{
    return TAVO_INTERCEPT(ERR_error_string)
        .argument("e", [&] { return numberValue(static_cast<std::int64_t>(code)); })
        .call(code, buffer);
}

// Time

int __wrap_nanosleep(const timespec* duration, timespec* remaining)
{
    return TAVO_INTERCEPT(nanosleep)
        .argument("req",
            [&] {
                return RecordedCall::Time{duration->tv_sec, duration->tv_nsec};
            })
        .call(duration, remaining);
}
}
