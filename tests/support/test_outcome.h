#pragma once

namespace tavo::test {

/// Whether the running test has failed so far. Fixtures ask it before they take their server's log away with
/// them. The test programs' main() points it at GoogleTest; in any other program it says that nothing has
/// failed.
inline bool (*testHasFailed)() = [] { return false; };

} // namespace tavo::test
