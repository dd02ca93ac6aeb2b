#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <system_error>

namespace tavo::test {
namespace {

using namespace std::chrono_literals;

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

std::vector<char*> pointers(std::vector<std::string>& strings)
{
    std::vector<char*> result;
    for (std::string& string : strings)
        result.push_back(string.data());
    result.push_back(nullptr);
    return result;
}

std::vector<std::string> environmentOf(const Command& command)
{
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        if (!command.environment.contains(std::string(text.substr(0, text.find('=')))))
            result.emplace_back(text);
    }
    for (const auto& [name, value] : command.environment) {
        if (value)
            result.push_back(name + "=" + *value);
    }
    return result;
}

/// All that the child does between fork() and exec(). Only system calls: the parent may have other threads,
/// whose locks (the allocator's, for one) the child has inherited as they were.
struct Launch
{
    const char* program;
    char* const* words;
    char* const* environment;
    const char* log;
    const char* directory;
    int errorPipe;
    pid_t parent;

    [[noreturn]] void operator()() const
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(127);
        redirect(STDIN_FILENO, "/dev/null", O_RDONLY);
        redirect(STDOUT_FILENO, log, O_WRONLY | O_CREAT | O_APPEND);
        dup2(STDOUT_FILENO, STDERR_FILENO);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        ::signal(SIGPIPE, SIG_DFL);
        if (*directory == '\0' || chdir(directory) == 0)
            execve(program, words, environment);
        reportAndExit();
    }

private:
    void redirect(int descriptor, const char* file, int flags) const
    {
        const int opened = open(file, flags, 0600);
        if (opened < 0)
            reportAndExit();
        dup2(opened, descriptor);
        close(opened);
    }

    [[noreturn]] void reportAndExit() const
    {
        const int error = errno;
        [[maybe_unused]] const ssize_t written = write(errorPipe, &error, sizeof error);
        _exit(127);
    }
};

int statusOf(int waitStatus)
{
    return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
}

} // namespace

ChildProcess::ChildProcess(const Command& command)
{
    std::vector<std::string> words = command.words;
    std::vector<std::string> environment = environmentOf(command);
    const std::vector<char*> wordPointers = pointers(words);
    const std::vector<char*> environmentPointers = pointers(environment);
    const std::string program = command.program.empty() ? findProgram({words.at(0)}) : command.program;
    const std::string log = command.log.empty() ? std::string("/dev/null") : command.log.string();
    const std::string directory = command.directory.string();

    int errorPipe[2];
    if (pipe2(errorPipe, O_CLOEXEC) != 0)
        fail("pipe2");
    const Launch launch{program.c_str(), wordPointers.data(), environmentPointers.data(), log.c_str(),
        directory.c_str(), errorPipe[1], getpid()};
    m_pid = fork();
    if (m_pid == 0)
        launch();
    close(errorPipe[1]);
    int error = m_pid < 0 ? errno : 0;
    // The pipe closes unwritten when exec() succeeds.
    const bool failed = m_pid < 0 || read(errorPipe[0], &error, sizeof error) > 0;
    close(errorPipe[0]);
    if (failed) {
        if (m_pid > 0)
            waitpid(m_pid, nullptr, 0);
        errno = error;
        fail("cannot run " + words.at(0));
    }
    m_pidfd = static_cast<int>(syscall(SYS_pidfd_open, m_pid, 0));
    if (m_pidfd < 0) {
        error = errno;
        kill();
        errno = error;
        fail("pidfd_open");
    }
}

ChildProcess::~ChildProcess()
{
    stop();
    close(m_pidfd);
}

bool ChildProcess::waitForExit(std::chrono::milliseconds timeout)
{
    if (m_exitStatus)
        return true;
    const auto end = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        pollfd ended{m_pidfd, POLLIN, 0};
        const int count = poll(&ended, 1, static_cast<int>(std::max(left, 0ms).count()));
        if (count > 0)
            break;
        if (count == 0 || errno != EINTR)
            return false;
    }
    int status = 0;
    if (waitpid(m_pid, &status, 0) == m_pid)
        m_exitStatus = statusOf(status);
    return m_exitStatus.has_value();
}

void ChildProcess::signal(int number) const
{
    if (!m_exitStatus)
        ::kill(m_pid, number);
}

void ChildProcess::suspend() const
{
    signal(SIGSTOP);
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(m_pid), &info, WSTOPPED | WEXITED | WNOWAIT);
}

int ChildProcess::stop()
{
    signal(SIGTERM);
    // A child that was suspended sees the signal only when it runs.
    signal(SIGCONT);
    if (!waitForExit(10s))
        kill();
    return *m_exitStatus;
}

void ChildProcess::kill()
{
    if (m_exitStatus)
        return;
    signal(SIGKILL);
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_exitStatus = statusOf(status);
}

int run(const Command& command)
{
    ChildProcess child(command);
    while (!child.waitForExit(1h)) {
    }
    return *child.exitStatus();
}

std::filesystem::path findProgram(const std::vector<std::string>& candidates)
{
    const char* path = std::getenv("PATH");
    for (const std::string& candidate : candidates) {
        if (candidate.find('/') != std::string::npos) {
            if (access(candidate.c_str(), X_OK) == 0)
                return candidate;
            continue;
        }
        std::string_view rest = path == nullptr ? "/usr/bin:/bin" : path;
        while (!rest.empty()) {
            const std::string_view folder = rest.substr(0, rest.find(':'));
            rest.remove_prefix(std::min(folder.size() + 1, rest.size()));
            const std::filesystem::path file = std::filesystem::path(folder) / candidate;
            if (access(file.c_str(), X_OK) == 0)
                return file;
        }
    }
    return {};
}

} // namespace tavo::test
