#pragma once

/// \file
/// Logging: what is written, under which tag, and where it goes.
///
///     TAVO_LOG_DEBUG(tavo::log::tag(*this), u"Bound to [%1]", dn);
///
/// A message is written only when its level is admitted for its tag; otherwise its arguments are not
/// evaluated. No log call throws or changes `errno`.
///
/// Threads: everything here is thread-safe and works until the very end of the process: threads may log while
/// static objects are being destroyed.

#include <tavo_utils/export.h>
#include <tavo_utils/formatter.h>
#include <tavo_utils/monotonic_time.h>
#include <tavo_utils/system_error.h>

#include <QString>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace tavo::log {

/// How detailed a message is. The numbers are fixed; a greater one is less severe.
enum class Level : int
{
    /// As a limit: nothing is written. No message has this level.
    silent = 0,

    warning = 3,
    info = 4,
    debug = 5,
    verbose = 6,
};

/// Limits what is written under every tag without a limit of its own. `Level::info` at the start.
TAVO_UTILS_EXPORT void setMaxLevel(Level level);
TAVO_UTILS_EXPORT Level maxLevel();

/// Gives the tags with this name a limit of their own, which may admit more or less than the process-wide
/// one.
///
/// While there are such limits, checking a level costs a look-up of the type's name. The name is composed by
/// the first check of a type; up to 256 names of objects and as many of scopes are kept for later ones.
/// \param typeName what `Tag::name` gives: the full type name of an object (`tavo::ldap::Session`), the short
///        name of a function's scope
TAVO_UTILS_EXPORT void setTagLevel(const QString& typeName, Level level);

/// Drops all limits set by `setTagLevel`.
TAVO_UTILS_EXPORT void clearTagLevels();

/// Who writes: an object, identified by its type and address, or the scope of a function.
///
/// Costs nothing to make: the text is composed when a message is written. Must not outlive the object.
class TAVO_UTILS_EXPORT Tag
{
public:
    /// For `tag` and `scopeTag`. A null `address` means a scope.
    Tag(const std::type_info& type, const void* address, QString text = {}) noexcept
        : m_type(&type)
        , m_address(address)
        , m_text(std::move(text))
    {}

    /// The object's type as C++ writes it, or the last part of the scope's name.
    QString name() const;

    /// `%1(0x%2%3)`: the name, the address in hexadecimal, and ", " with the text when there is one. For a
    /// scope, the name.
    QString toString() const;

private:
    friend TAVO_UTILS_EXPORT bool admits(Level level, const Tag& tag);

    /// The greatest level that is written under this tag.
    Level limit() const;

    const std::type_info* m_type;
    const void* m_address;
    QString m_text;
};

/// The tag of an object: its dynamic type (while a base class is being constructed, that base) and its
/// address.
template <class T>
Tag tag(const T& object) noexcept
{
    return Tag(typeid(object), std::addressof(object));
}

/// The same, with a text that tells this object from others of its type.
template <class T>
Tag tag(const T& object, const QString& text) noexcept
{
    return Tag(typeid(object), std::addressof(object), text);
}

/// The tag of a free or static function, named like `Marker`, a complete type best declared inside the
/// function.
template <class Marker>
Tag scopeTag() noexcept
{
    return Tag(typeid(Marker), nullptr);
}

namespace detail {

/// The greatest level that any tag admits.
TAVO_UTILS_EXPORT extern std::atomic<int> ceiling;

} // namespace detail

/// Whether a message of this level could be written under some tag: one relaxed atomic load.
inline bool admits(Level level) noexcept
{
    return static_cast<int>(level) <= detail::ceiling.load(std::memory_order_relaxed);
}

/// Whether a message of this level is written under this tag.
TAVO_UTILS_EXPORT bool admits(Level level, const Tag& tag);

/// Keeps a call site that repeats itself from flooding the log.
///
/// Each call site of a warning or an info message counts its messages within a period, which begins with its
/// first message. The message that reaches the limit is prefixed `TOO MANY SIMILAR MESSAGES: `; later ones
/// are written at debug level until the period is over. A limit below 1 turns this off.
struct ReducerConfig
{
    std::chrono::milliseconds period{60000};
    int limit = 100;
};

TAVO_UTILS_EXPORT void setReducerConfig(const ReducerConfig& config);
TAVO_UTILS_EXPORT ReducerConfig reducerConfig();

/// Whether passwords may be logged; false at the start. Code that logs a record with a password checks this.
TAVO_UTILS_EXPORT bool showPasswords() noexcept;
TAVO_UTILS_EXPORT void setShowPasswords(bool show) noexcept;

/// Receives every message that is written, on the thread that logs. Several threads may call it at once. An
/// exception that it throws is dropped.
using Sink = std::function<void(Level level, const QString& tag, const QString& text)>;

/// Replaces the sink; an empty one restores the default.
///
/// The default sink passes messages to Qt's message logger under the category `tavo.ldap` (warning, info, and
/// debug for both debug and verbose). It bypasses the category's own filter: what is admitted here is not
/// filtered a second time.
///
/// When this returns, the previous sink runs on no other thread, is never called again, and belongs to the
/// caller alone. Waits for calls in progress: don't call it while holding a lock that the sink takes. A sink
/// may call it; that call of the sink is not waited for. A message that a sink logs goes to the default sink,
/// and one that Qt's message handler logs goes to standard error, so that neither can feed itself.
/// \return the previous sink; empty when it was the default
TAVO_UTILS_EXPORT Sink setSink(Sink sink);

/// Passes a message to the sink, whatever the levels are. Code usually logs through the macros below.
TAVO_UTILS_EXPORT void write(Level level, const Tag& tag, const QString& text) noexcept;

namespace detail {

/// What happens to one message.
struct Decision
{
    bool written = false;
    Level level = Level::silent;

    /// Whether this message reaches the limit.
    bool isTooMany = false;
};

/// The reducer of one call site.
class TAVO_UTILS_EXPORT Reducer
{
public:
    constexpr Reducer() = default;
    Decision decide(Level level, const Tag& tag);

private:
    int count();

    std::mutex m_mutex;
    utils::MonotonicTime::TimePoint m_periodStart;
    int m_count = 0;
};
static_assert(std::is_trivially_destructible_v<Reducer>, "threads log while static objects are destroyed");

TAVO_UTILS_EXPORT void write(const Decision& decision, const Tag& tag, const QString& text) noexcept;

} // namespace detail

} // namespace tavo::log

// The tag expression is evaluated when any tag admits the level, the arguments when this tag does. Arguments
// that throw lose only the message.
#define TAVO_LOG_DETAIL_REDUCED(LEVEL, TAG, ...)                                                             \
    do {                                                                                                     \
        if (::tavo::log::admits(LEVEL)) {                                                                    \
            static constinit ::tavo::log::detail::Reducer tavoLogReducer;                                    \
            const ::tavo::utils::SystemErrorKeeper tavoLogKeeper;                                            \
            try {                                                                                            \
                const ::tavo::log::Tag& tavoLogTag = TAG;                                                    \
                if (const auto tavoLogDecision = tavoLogReducer.decide(LEVEL, tavoLogTag);                   \
                    tavoLogDecision.written) {                                                               \
                    ::tavo::log::detail::write(                                                              \
                        tavoLogDecision, tavoLogTag, ::tavo::utils::format(__VA_ARGS__));                    \
                }                                                                                            \
            } catch (...) {                                                                                  \
            }                                                                                                \
        }                                                                                                    \
    } while (false)

#define TAVO_LOG_DETAIL_PLAIN(LEVEL, TAG, ...)                                                               \
    do {                                                                                                     \
        if (::tavo::log::admits(LEVEL)) {                                                                    \
            const ::tavo::utils::SystemErrorKeeper tavoLogKeeper;                                            \
            try {                                                                                            \
                const ::tavo::log::Tag& tavoLogTag = TAG;                                                    \
                if (::tavo::log::admits(LEVEL, tavoLogTag)) {                                                \
                    ::tavo::log::write(LEVEL, tavoLogTag, ::tavo::utils::format(__VA_ARGS__));               \
                }                                                                                            \
            } catch (...) {                                                                                  \
            }                                                                                                \
        }                                                                                                    \
    } while (false)

/// \name Logging a message under a tag
///
///     TAVO_LOG_INFO(tagExpression, u"template with %1", value);
///
/// Templates and values are those of `utils::format`. Warning and info messages pass the call site's reducer.
/// \{
#define TAVO_LOG_WARNING(TAG, ...) TAVO_LOG_DETAIL_REDUCED(::tavo::log::Level::warning, TAG, __VA_ARGS__)
#define TAVO_LOG_INFO(TAG, ...) TAVO_LOG_DETAIL_REDUCED(::tavo::log::Level::info, TAG, __VA_ARGS__)
#define TAVO_LOG_DEBUG(TAG, ...) TAVO_LOG_DETAIL_PLAIN(::tavo::log::Level::debug, TAG, __VA_ARGS__)
#define TAVO_LOG_VERBOSE(TAG, ...) TAVO_LOG_DETAIL_PLAIN(::tavo::log::Level::verbose, TAG, __VA_ARGS__)
/// \}
