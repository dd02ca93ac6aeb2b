#pragma once

#include <cstdio>

namespace tavo::fuzz {

/// If it doesn't hold, prints the invariant and ends the process so that the fuzzer reports a finding.
inline void require(bool holds, const char* invariant)
{
    if (!holds) {
        std::fprintf(stderr, "INVARIANT BROKEN: %s\n", invariant);
        __builtin_trap();
    }
}

} // namespace tavo::fuzz
