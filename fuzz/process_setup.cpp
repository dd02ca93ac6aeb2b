#include "process_setup.h"

#include "invariant.h"
#include <tavo_utils/assert.h>
#include <tavo_utils/log.h>

#include <cstdlib>

namespace tavo::fuzz {

std::atomic<bool>& lastPageWasLost()
{
    static std::atomic<bool> wasLost = false;
    return wasLost;
}

void setUpProcess()
{
    setenv("LDAPNOINIT", "1", 1);
    setenv("TAVO_CONFIG_DIR", "/nonexistent", 1);
    setenv("XDG_CONFIG_HOME", "/nonexistent", 1);
    log::setMaxLevel(log::Level::verbose);
    log::setSink([](log::Level, const QString&, const QString& text) {
        if (text.contains(QLatin1String("was lost in its handler"))) {
            lastPageWasLost() = true;
        }
    });
    setAssertionHandler(
        [](SourcePosition, const char* condition, const QString&) { require(false, condition); });
}

} // namespace tavo::fuzz

// The sanitizers call this by its name. The client library allocates whatever length a server claims, which
// has to fail here as it would on a machine without that much memory.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options();

const char* __asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=64:quarantine_size_mb=64";
}
