#pragma once

namespace tavo {

/// A place in the sources, as diagnostics name it. The default means "unknown".
struct SourcePosition
{
    /// Not owned: a string literal, or text that outlives the position.
    const char* file = "";

    int line = 0;
};

} // namespace tavo
