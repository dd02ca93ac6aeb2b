#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace tavo::test {

/// Gives every test a deadline. When it passes, the stacks of all threads are written to standard error and
/// the process aborts: a test that hangs shows where.
class Deadline : public ::testing::EmptyTestEventListener
{
public:
    explicit Deadline(std::chrono::milliseconds limit);
    ~Deadline() override;

    /// The number of seconds in $TAVO_TEST_DEADLINE, or 60; four times that under a sanitizer, which slows a
    /// test down.
    static std::chrono::milliseconds configuredLimit();

    void OnTestStart(const ::testing::TestInfo& test) override;
    void OnTestEnd(const ::testing::TestInfo& test) override;

private:
    void watch();

    const std::chrono::milliseconds m_limit;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::optional<std::chrono::steady_clock::time_point> m_expiry;
    std::string m_test;
    bool m_isStopping = false;
    std::thread m_watchdog;
};

/// Writes the stack of every other thread of this process to standard error. A thread that blocks the signal
/// this works with, or is stuck in the kernel, is named without a stack.
void printAllStacks();

} // namespace tavo::test
