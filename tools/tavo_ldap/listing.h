#pragma once

#include "options.h"

namespace tavo::tool {

/// Fetches all users and prints them page by page.
/// \return the exit code
/// \throws CommandError when something fails, std::system_error when the output can't be written
int listUsers(const Options& options);

/// The same, for groups.
int listGroups(const Options& options);

} // namespace tavo::tool
