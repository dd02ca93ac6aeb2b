#include "support/blocked_call.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <utility>

namespace tavo::test {

namespace {

bool sleeps(pid_t thread)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    const std::string line{std::istreambuf_iterator<char>(stat), {}};
    // "ID (NAME) STATE ...", and the name may hold anything.
    const std::size_t nameEnd = line.rfind(')');
    return nameEnd != std::string::npos && line.compare(nameEnd, 3, ") S") == 0;
}

} // namespace

BlockedCall::BlockedCall(std::function<void()> call)
    : m_returned(std::async(std::launch::async,
          [this, call = std::move(call)] {
              m_started.set_value(static_cast<pid_t>(syscall(SYS_gettid)));
              call();
          }))
    , m_thread(m_started.get_future().get())
{}

bool BlockedCall::isWaiting() const
{
    while (m_returned.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        if (sleeps(m_thread))
            return true;
        std::this_thread::yield();
    }
    return false;
}

} // namespace tavo::test
