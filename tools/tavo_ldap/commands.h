#pragma once

#include "options.h"

namespace tavo::tool {

/// Runs the command. Data go to standard output, everything else to standard error.
/// \return the exit code: 0 for success, 1 for failure
int run(const Options& options);

} // namespace tavo::tool
