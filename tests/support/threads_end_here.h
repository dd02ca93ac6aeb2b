#pragma once

#include <cstddef>

namespace tavo::test {

/// The number of entries in a directory of /proc: of threads or of descriptors.
std::size_t countIn(const char* directory);

/// Fails the test when it is destroyed while the process has more threads or descriptors than when it was
/// constructed. Waits for them first, as `ThreadsEndHere` does.
class NothingIsLeft
{
public:
    NothingIsLeft() = default;
    ~NothingIsLeft();
    NothingIsLeft(const NothingIsLeft&) = delete;
    NothingIsLeft& operator=(const NothingIsLeft&) = delete;

private:
    const std::size_t m_threads = countIn("/proc/self/task");
    const std::size_t m_descriptors = countIn("/proc/self/fd");
};

/// Waits in its destructor for all threads started since its construction: a search that outlives its
/// session ends with its server, and no event tells when. Gives up after `kDeadline`; a thread that is left
/// is then for the test, or the sanitizer, to report.
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
