#include "tavo_utils/assert.h"

#include <tavo_utils/log.h>
#include <tavo_utils/system_error.h>

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <type_traits>
#include <utility>

namespace tavo {

namespace {

struct CurrentHandler
{
    std::mutex mutex;
    std::shared_ptr<const AssertionHandler> handler = std::make_shared<AssertionHandler>();
};

/// By design: never destroyed, since threads may assert while the process exits; the pointer keeps it
/// reachable.
CurrentHandler& current()
{
    static auto* const instance = new CurrentHandler;
    return *instance;
}

std::shared_ptr<const AssertionHandler> exchange(std::shared_ptr<const AssertionHandler> handler)
{
    const std::lock_guard lock(current().mutex);
    return std::exchange(current().handler, std::move(handler));
}

std::shared_ptr<const AssertionHandler> handlerInForce()
{
    const std::lock_guard lock(current().mutex);
    return current().handler;
}

/// The rate limits of the positions: a position that fails all the time must not silence the others, as it
/// would if they were one call site to the log.
class PositionLimits
{
public:
    constexpr PositionLimits() = default;

    /// Of its own for each of the first positions, a common one for all others. Never fails: the table needs
    /// no memory.
    log::detail::Reducer& of(SourcePosition position)
    {
        const std::size_t file = std::hash<std::string_view>()(position.file);
        const std::lock_guard lock(m_mutex);
        for (std::size_t i = 0; i < m_count; ++i) {
            if (m_limits[i].file == file && m_limits[i].line == position.line) {
                return m_limits[i].reducer;
            }
        }
        if (m_count == m_limits.size()) {
            return m_others;
        }
        Limit& added = m_limits[m_count++];
        added.file = file;
        added.line = position.line;
        return added.reducer;
    }

private:
    struct Limit
    {
        /// The hash of the file's name, which need not outlive the assertion. Two names with one hash would
        /// merely share a counter.
        std::size_t file = 0;

        int line = 0;
        log::detail::Reducer reducer;
    };

    std::mutex m_mutex;
    std::array<Limit, 128> m_limits;
    std::size_t m_count = 0;
    log::detail::Reducer m_others;
};
static_assert(std::is_trivially_destructible_v<PositionLimits>, "threads assert while the process exits");

constinit PositionLimits limits;

void logFailure(SourcePosition position, const char* condition, const QString& message)
{
    if (!log::admits(log::Level::warning)) {
        return;
    }
    struct assertFailure
    {};
    const log::Tag tag = log::scopeTag<assertFailure>();
    const auto decision = limits.of(position).decide(log::Level::warning, tag);
    if (decision.written) {
        log::detail::write(decision, tag,
            utils::format(
                u"ASSERTION FAILED: %1:%2 (%3) %4", position.file, position.line, condition, message));
    }
}

} // namespace

void assertFailure(SourcePosition position, const char* condition, const QString& message) noexcept
{
    const utils::SystemErrorKeeper keeper;
    try {
        const auto handler = handlerInForce();
        if (*handler) {
            (*handler)(position, condition, message);
        } else {
            logFailure(position, condition, message);
        }
    } catch (...) { // the caller continues, whatever happens to the report
    }
}

void assertFailure(const char* file, int line, const char* condition, const QString& message) noexcept
{
    assertFailure({file, line}, condition, message);
}

AssertionHandler setAssertionHandler(AssertionHandler handler)
{
    return *exchange(std::make_shared<const AssertionHandler>(std::move(handler)));
}

} // namespace tavo
