#pragma once

#include <atomic>

namespace tavo::fuzz {

/// Makes this process the same wherever it runs: no configuration file of the machine is read, every line of
/// the log is composed and goes nowhere, and a failed assertion of the library is a finding. Call it before
/// anything else, once.
void setUpProcess();

/// Whether the log has said, since it was last set to false, that the handler of a last page threw.
std::atomic<bool>& lastPageWasLost();

} // namespace tavo::fuzz
