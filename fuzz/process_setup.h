#pragma once

#include <atomic>

namespace tavo::fuzz {

/// Makes this process independent of the machine: no configuration file is read, every log line is composed
/// and discarded, and a failed assertion of the library is a finding. Call it once, before anything else.
void setUpProcess();

/// Set when the log reports that the handler of a last page threw; the caller resets it.
std::atomic<bool>& lastPageWasLost();

} // namespace tavo::fuzz
