#pragma once

namespace tavo {

/// A place in the sources, as diagnostics name it. The text is not owned: it is a literal or outlives its
/// use. A default-made position means "unknown".
struct SourcePosition
{
    const char* file = "";
    int line = 0;
};

} // namespace tavo
