#pragma once

#include <cstdio>

namespace tavo::fuzz {

/// Ends the process, with the name of what does not hold, in a way that the fuzzer takes for a finding.
inline void require(bool holds, const char* invariant)
{
    if (!holds) {
        std::fprintf(stderr, "INVARIANT BROKEN: %s\n", invariant);
        __builtin_trap();
    }
}

} // namespace tavo::fuzz
