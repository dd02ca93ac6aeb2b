#include "support/threads_end_here.h"

#include "support/gate.h"

#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>

namespace tavo::test {

std::size_t countIn(const char* directory)
{
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

ThreadsEndHere::~ThreadsEndHere()
{
    const auto expiry = std::chrono::steady_clock::now() + kDeadline;
    while (countIn("/proc/self/task") > m_before && std::chrono::steady_clock::now() < expiry) {
        std::this_thread::yield();
    }
}

} // namespace tavo::test
