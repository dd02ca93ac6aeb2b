#include "support/threads_end_here.h"

#include "support/gate.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>

namespace tavo::test {

std::size_t countIn(const char* directory)
{
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

namespace {

/// Waits until there are no more than `wanted`, or `kDeadline` has passed; returns how many there are.
std::size_t countAtMost(const char* directory, std::size_t wanted)
{
    const auto expiry = std::chrono::steady_clock::now() + kDeadline;
    std::size_t count = countIn(directory);
    while (count > wanted && std::chrono::steady_clock::now() < expiry) {
        std::this_thread::yield();
        count = countIn(directory);
    }
    return count;
}

} // namespace

NothingIsLeft::~NothingIsLeft()
{
    EXPECT_LE(countAtMost("/proc/self/task", m_threads), m_threads) << "threads are left";
    EXPECT_LE(countAtMost("/proc/self/fd", m_descriptors), m_descriptors) << "descriptors are left";
}

ThreadsEndHere::~ThreadsEndHere() { countAtMost("/proc/self/task", m_before); }

} // namespace tavo::test
