#include "deadline.h"

#include "sanitized.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

namespace tavo::test {
namespace {

using namespace std::chrono_literals;

constexpr int stackSignal = SIGUSR2;

pid_t currentThread() { return static_cast<pid_t>(syscall(SYS_gettid)); }

/// Where an interrupted thread leaves its stack for the one that asked.
struct Sample
{
    pid_t thread = 0;
    std::array<void*, 64> frames = {};
    int depth = 0;
    sem_t taken = {};
};
std::atomic<Sample*> wanted = nullptr;

void takeSample(int)
{
    const int error = errno;
    Sample* sample = wanted;
    // A thread that answers too late must not answer for another.
    if (sample != nullptr && sample->thread == currentThread() && wanted.exchange(nullptr) == sample) {
        sample->depth = backtrace(sample->frames.data(), static_cast<int>(sample->frames.size()));
        sem_post(&sample->taken);
    }
    errno = error;
}

bool waitFor(sem_t& semaphore)
{
    timespec end{};
    clock_gettime(CLOCK_REALTIME, &end);
    end.tv_sec += 1;
    int result = 0;
    do {
        result = sem_timedwait(&semaphore, &end);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

/// Where an address lies in the file that it was loaded from: what addr2line wants.
struct Location
{
    std::string file;
    std::string offset;
};

std::vector<Location> locations(const Sample& sample)
{
    std::vector<Location> result;
    for (int index = 0; index < sample.depth; ++index) {
        // Return addresses: the call is before them.
        const auto address =
            reinterpret_cast<std::uintptr_t>(sample.frames.at(static_cast<size_t>(index))) - 1;
        Dl_info info{};
        if (dladdr(reinterpret_cast<void*>(address), &info) == 0)
            continue;
        std::array<char, 32> offset{};
        std::snprintf(offset.data(), offset.size(), "0x%zx",
            address - reinterpret_cast<std::uintptr_t>(info.dli_fbase));
        result.push_back({info.dli_fname, offset.data()});
    }
    return result;
}

/// Prints a run of frames that are in one file: with the names of functions where the compiler's tools are
/// there.
void printFrames(const std::string& file, const std::string& offsets)
{
    const std::string command =
        "addr2line -Cfp -e '" + file + "' " + offsets + " 2>/dev/null || echo " + file + offsets;
    std::fflush(stderr);
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
    std::array<char, 1024> line{};
    while (pipe && std::fgets(line.data(), static_cast<int>(line.size()), pipe.get()) != nullptr)
        std::fprintf(stderr, "    %s", line.data());
}

void printStackOf(pid_t thread, const std::string& name)
{
    std::fprintf(stderr, "  thread %d (%s)\n", thread, name.c_str());
    // Never freed: the thread may still be about to write to it, and the process is about to end.
    auto* const sample = new Sample{.thread = thread};
    sem_init(&sample->taken, 0, 0);
    wanted = sample;
    if (syscall(SYS_tgkill, getpid(), thread, stackSignal) != 0 || !waitFor(sample->taken)) {
        std::fputs("    no answer: it blocks the signal or is stuck in the kernel\n", stderr);
        return;
    }
    const std::vector<Location> stack = locations(*sample);
    for (auto frame = stack.begin(); frame != stack.end();) {
        const std::string file = frame->file;
        std::string offsets;
        for (; frame != stack.end() && frame->file == file; ++frame)
            offsets += " " + frame->offset;
        printFrames(file, offsets);
    }
}

/// Signals that a test sends to its process are meant for its own threads.
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        sigdelset(&all, stackSignal);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t m_before{};
};

} // namespace

Deadline::Deadline(std::chrono::milliseconds limit)
    : m_limit(limit)
{
    const SignalsBlocked blocked;
    m_watchdog = std::thread([this] { watch(); });
}

Deadline::~Deadline()
{
    {
        const std::lock_guard lock(m_mutex);
        m_isStopping = true;
    }
    m_changed.notify_one();
    m_watchdog.join();
}

std::chrono::milliseconds Deadline::configuredLimit()
{
    const char* const text = std::getenv("TAVO_TEST_DEADLINE");
    const std::chrono::seconds limit(text == nullptr ? 60 : std::strtol(text, nullptr, 10));
    return sanitized ? limit * 4 : limit;
}

void Deadline::OnTestStart(const ::testing::TestInfo& test)
{
    {
        const std::lock_guard lock(m_mutex);
        m_test = std::string(test.test_suite_name()) + "." + test.name();
        m_expiry = std::chrono::steady_clock::now() + m_limit;
    }
    m_changed.notify_one();
}

void Deadline::OnTestEnd(const ::testing::TestInfo&)
{
    {
        const std::lock_guard lock(m_mutex);
        m_expiry.reset();
    }
    m_changed.notify_one();
}

void Deadline::watch()
{
    std::unique_lock lock(m_mutex);
    while (!m_isStopping) {
        if (!m_expiry) {
            m_changed.wait(lock);
            continue;
        }
        const auto expiry = *m_expiry;
        m_changed.wait_until(lock, expiry);
        if (m_expiry == expiry && !m_isStopping && std::chrono::steady_clock::now() >= expiry)
            break;
    }
    if (m_isStopping)
        return;
    std::fprintf(stderr, "%s has passed its deadline of %lld ms; its threads are at:\n", m_test.c_str(),
        static_cast<long long>(m_limit.count()));
    printAllStacks();
    std::fflush(nullptr);
    std::abort();
}

void printAllStacks()
{
    // The first backtrace() loads a library, which a signal handler must not.
    std::array<void*, 1> frame{};
    backtrace(frame.data(), 1);
    struct sigaction action
    {};
    action.sa_handler = takeSample;
    action.sa_flags = SA_RESTART;
    sigaction(stackSignal, &action, nullptr);

    const pid_t self = currentThread();
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        const pid_t thread = std::stoi(entry.path().filename());
        std::string name;
        std::getline(std::ifstream(entry.path() / "comm"), name);
        if (thread != self)
            printStackOf(thread, name);
    }
}

} // namespace tavo::test
