#pragma once

#include <tavo_utils/export.h>
#include <tavo_utils/source_position.h>

#include <QString>

#include <functional>

namespace tavo {

/// Receives every failed assertion, on the thread that asserted. Several threads may call it at once. An
/// exception that it throws is dropped, because execution continues after an assertion.
using AssertionHandler =
    std::function<void(SourcePosition position, const char* condition, const QString& message)>;

/// Reports that `condition`, which is expected to hold at `position`, does not hold. Returns, and execution
/// continues.
///
/// The report goes to the handler set by `setAssertionHandler`. The default handler logs
/// `ASSERTION FAILED: %1:%2 (%3) %4` (file, line, condition, message) as a warning. The caller passes the
/// position, rather than the compiler, because monitoring matches on it: it must survive edits of the file.
///
/// These warnings are rate limited (`log::ReducerConfig`) by position, like call sites of the log. The first
/// 128 positions of the process are counted each for itself; all further ones share one counter.
///
/// Leaves `errno` as it was. Thread-safe; never throws.
TAVO_UTILS_EXPORT void assertFailure(
    SourcePosition position, const char* condition, const QString& message = {}) noexcept;

/// The same, with the position in two parts.
TAVO_UTILS_EXPORT void assertFailure(
    const char* file, int line, const char* condition, const QString& message = {}) noexcept;

/// Replaces the handler of failed assertions; an empty one restores the default.
///
/// Thread-safe, also while other threads assert. A call of the previous handler that has begun on another
/// thread may still be running when this returns.
/// \return the previous handler; empty when it was the default
TAVO_UTILS_EXPORT AssertionHandler setAssertionHandler(AssertionHandler handler);

} // namespace tavo
