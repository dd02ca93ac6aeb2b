#pragma once

#include <future>

namespace tavo::ldap::finished_threads {

/// Takes over the future of a task that is ending on the calling thread and can't wait for itself.
///
/// The thread that was handed over before is waited for here, so at most one, the last, is left; it has
/// nothing more to do than to return.
void handOver(std::future<void> task);

/// Waits for the thread that was handed over last, if there is one.
void join();

} // namespace tavo::ldap::finished_threads
