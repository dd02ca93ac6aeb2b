#pragma once

#include <tavo_utils/export.h>
#include <tavo_utils/source_position.h>

#include <QString>

#include <functional>

namespace tavo {

/// Receives every failed assertion, on the thread that asserted. An exception that it throws is dropped, for
/// execution goes on after an assertion. It may be called by several threads at once.
using AssertionHandler =
    std::function<void(SourcePosition position, const char* condition, const QString& message)>;

/// Reports that @p condition, expected to hold at the named place, does not, and returns: execution goes on.
///
/// The report goes to the handler set by setAssertionHandler(); the default one logs
/// "ASSERTION FAILED: %1:%2 (%3) %4" (file, line, condition, message) as a warning. The position is handed
/// over by the caller instead of being taken from the compiler because monitoring matches on it: it has to
/// survive edits of the file. errno is the same after the call as before. Thread-safe; never throws.
TAVO_UTILS_EXPORT void assertFailure(
    SourcePosition position, const char* condition, const QString& message = {}) noexcept;

/// The same with the position in two parts.
TAVO_UTILS_EXPORT void assertFailure(
    const char* file, int line, const char* condition, const QString& message = {}) noexcept;

/// Replaces the handler of failed assertions and returns the one that was set, empty when it was the default;
/// an empty @p handler restores the default. Thread-safe, also while other threads assert; a call of the
/// previous handler that has begun on another thread may still be running when this function returns.
TAVO_UTILS_EXPORT AssertionHandler setAssertionHandler(AssertionHandler handler);

} // namespace tavo
