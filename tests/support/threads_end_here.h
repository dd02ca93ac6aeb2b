#pragma once

#include <cstddef>

namespace tavo::test {

/// How many entries a directory of the system has: threads, descriptors.
std::size_t countIn(const char* directory);

/// Waits, when it goes, for all threads that have been started since it came: a search that outlives its
/// session ends with its server. There is no event for that. Gives up after `kDeadline`; what is left is then
/// the business of the test, or of the sanitizer.
class ThreadsEndHere
{
public:
    ThreadsEndHere() = default;
    ~ThreadsEndHere();
    ThreadsEndHere(const ThreadsEndHere&) = delete;
    ThreadsEndHere& operator=(const ThreadsEndHere&) = delete;

private:
    const std::size_t m_before = countIn("/proc/self/task");
};

} // namespace tavo::test
