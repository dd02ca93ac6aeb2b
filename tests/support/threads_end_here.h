#pragma once

#include <cstddef>

namespace tavo::test {

/// How many entries a directory of the system has: threads, descriptors.
std::size_t countIn(const char* directory);

/// No more threads and descriptors are there when this goes than when it came, or the test fails: they are
/// waited for as `ThreadsEndHere` does.
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
