#pragma once

#include <cstddef>

namespace tavo::test {

/// How often the calling thread has allocated memory so far, in any code of this process.
std::size_t allocationsOfThisThread() noexcept;

} // namespace tavo::test
