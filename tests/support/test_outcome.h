#pragma once

namespace tavo::test {

/// Whether the running test has failed so far. Fixtures ask this before they delete their server's log. The
/// main() of the test programs points it at GoogleTest; in any other program it always returns false.
inline bool (*testHasFailed)() = [] { return false; };

} // namespace tavo::test
