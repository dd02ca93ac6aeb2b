#include "tavo_utils/assert.h"

#include <tavo_utils/log.h>
#include <tavo_utils/system_error.h>

#include <memory>
#include <mutex>
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

void logFailure(SourcePosition position, const char* condition, const QString& message)
{
    struct assertFailure
    {};
    TAVO_LOG_WARNING(log::scopeTag<assertFailure>(), u"ASSERTION FAILED: %1:%2 (%3) %4", position.file,
        position.line, condition, message);
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
