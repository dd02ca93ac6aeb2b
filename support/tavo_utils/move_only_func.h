#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace tavo::utils {

template <class Signature>
class MoveOnlyFunc;

namespace detail {

template <class T>
inline constexpr bool isMoveOnlyFunc = false;
template <class Signature>
inline constexpr bool isMoveOnlyFunc<MoveOnlyFunc<Signature>> = true;

template <class T>
inline constexpr bool isStdFunction = false;
template <class Signature>
inline constexpr bool isStdFunction<std::function<Signature>> = true;

// What can be called but may turn out to hold nothing to call.
template <class T>
inline constexpr bool maybeEmptyCallable =
    std::is_pointer_v<T> || std::is_member_pointer_v<T> || isStdFunction<T> || isMoveOnlyFunc<T>;

} // namespace detail

/// A callable of any type, also a move-only one, behind one signature. What asynchronous operations take as
/// their handler.
///
///     tavo::utils::MoveOnlyFunc<void(int)> handler = [file = std::move(file)](int line) { file->print(line);
///     }; handler(1);
///
/// The target has an address of its own: moving the function never moves the target. And a running call keeps
/// its target alive until it returns, even when the function is moved, reset, assigned or destroyed
/// meanwhile: a handler may stop the very operation that is calling it.
///
/// Not what it is for: sharing. It can't be copied, and calls from several threads, or a call and a change of
/// the function from two threads, need a lock of the caller's. An empty one throws std::bad_function_call
/// when it is called.
template <class R, class... Args>
class MoveOnlyFunc<R(Args...)>
{
public:
    MoveOnlyFunc() noexcept = default;
    MoveOnlyFunc(std::nullptr_t) noexcept {} // NOLINT(google-explicit-constructor): like std::function

    /// Takes @p callable over. A null pointer to a function or member, an empty std::function and an empty
    /// MoveOnlyFunc of another signature give an empty function. Throws what moving the callable throws, and
    /// std::bad_alloc.
    template <class F>
    requires(!std::is_same_v<std::remove_cvref_t<F>, MoveOnlyFunc>) &&
        std::is_invocable_r_v<R, std::decay_t<F>&, Args...> MoveOnlyFunc(
            F&& callable) // NOLINT(google-explicit-constructor, bugprone-forwarding-reference-overload)
        : m_target(makeTarget(std::forward<F>(callable)))
    {}

    MoveOnlyFunc(const MoveOnlyFunc&) = delete;
    MoveOnlyFunc& operator=(const MoveOnlyFunc&) = delete;
    MoveOnlyFunc(MoveOnlyFunc&&) noexcept = default;
    MoveOnlyFunc& operator=(MoveOnlyFunc&&) noexcept = default;
    ~MoveOnlyFunc() = default;

    /// Empties the function; the target goes at once unless it is running.
    MoveOnlyFunc& operator=(std::nullptr_t) noexcept
    {
        m_target.reset();
        return *this;
    }

    /// Calls the target. Throws std::bad_function_call when there is none, and what the target throws. A
    /// const function calls its target too, as std::function does.
    R operator()(Args... args) const
    {
        const std::shared_ptr<Target> target = m_target; // outlives whatever the call does to this object
        if (!target) {
            throw std::bad_function_call();
        }
        return target->call(std::forward<Args>(args)...);
    }

    /// Whether there is a target.
    explicit operator bool() const noexcept { return m_target != nullptr; }
    friend bool operator==(const MoveOnlyFunc& func, std::nullptr_t) noexcept { return !func.m_target; }

private:
    struct Target
    {
        Target() = default;
        Target(const Target&) = delete;
        Target& operator=(const Target&) = delete;
        virtual ~Target() = default;
        virtual R call(Args&&... args) = 0;
    };

    template <class F>
    struct TargetOf final : Target
    {
        template <class Source>
        explicit TargetOf(Source&& source)
            : callable(std::forward<Source>(source))
        {}
        R call(Args&&... args) override
        {
            if constexpr (std::is_void_v<R>) {
                std::invoke(callable, std::forward<Args>(args)...);
            } else {
                return std::invoke(callable, std::forward<Args>(args)...);
            }
        }
        F callable;
    };

    template <class F>
    static std::shared_ptr<Target> makeTarget(F&& callable)
    {
        if constexpr (detail::maybeEmptyCallable<std::remove_cvref_t<F>>) {
            if (callable == nullptr) {
                return nullptr;
            }
        }
        return std::make_shared<TargetOf<std::decay_t<F>>>(std::forward<F>(callable));
    }

    std::shared_ptr<Target> m_target;
};

} // namespace tavo::utils
