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

/// Whether a callable of this type may be empty.
template <class T>
inline constexpr bool maybeEmptyCallable =
    std::is_pointer_v<T> || std::is_member_pointer_v<T> || isStdFunction<T> || isMoveOnlyFunc<T>;

} // namespace detail

/// A callable of any type, also a move-only one, behind one signature: the handler of an asynchronous
/// operation.
///
///     tavo::utils::MoveOnlyFunc<void(int)> handler =
///         [file = std::move(file)](int line) { file->print(line); };
///     handler(1);
///
/// Moving the function never moves its target. A running call keeps the target alive until it returns, even
/// when the function is moved, reset, assigned or destroyed meanwhile: a handler may stop the operation that
/// is calling it.
///
/// Threads: one thread at a time uses a function; callers that share one need a lock of their own.
template <class R, class... Args>
class MoveOnlyFunc<R(Args...)>
{
public:
    MoveOnlyFunc() noexcept = default;

    /// Implicit, like that of `std::function`.
    MoveOnlyFunc(std::nullptr_t) noexcept {}

    /// Takes over a callable; implicit, like that of `std::function`. A null pointer to a function or member,
    /// an empty `std::function` and an empty `MoveOnlyFunc` of another signature give an empty function.
    /// \throws std::bad_alloc, and what moving the callable throws
    template <class F>
    requires(!std::is_same_v<std::remove_cvref_t<F>, MoveOnlyFunc>) &&
        std::is_invocable_r_v<R, std::decay_t<F>&, Args...> MoveOnlyFunc(F&& callable)
        : m_target(makeTarget(std::forward<F>(callable)))
    {}

    MoveOnlyFunc(const MoveOnlyFunc&) = delete;
    MoveOnlyFunc& operator=(const MoveOnlyFunc&) = delete;
    MoveOnlyFunc(MoveOnlyFunc&&) noexcept = default;
    MoveOnlyFunc& operator=(MoveOnlyFunc&&) noexcept = default;
    ~MoveOnlyFunc() = default;

    /// Empties the function. The target is destroyed at once unless it is running.
    MoveOnlyFunc& operator=(std::nullptr_t) noexcept
    {
        m_target.reset();
        return *this;
    }

    /// Calls the target, also of a const function, as `std::function` does.
    /// \throws std::bad_function_call when there is no target, and what the target throws
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
