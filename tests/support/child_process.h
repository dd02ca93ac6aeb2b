#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tavo::test {

/// The program to run and its environment.
struct Command
{
    /// The program and its arguments.
    std::vector<std::string> words;
    /// The file to run, when it differs from the one that the first of `words` names (by path or in $PATH).
    std::filesystem::path program = {};
    /// The file to which standard output and error are appended; /dev/null when empty.
    std::filesystem::path log = {};
    /// Changes to the environment: a value, or nothing to remove the variable.
    std::map<std::string, std::optional<std::string>> environment = {};
    /// The working directory; the caller's when empty.
    std::filesystem::path directory = {};
};

/// A program run as a child, which never outlives its owner: the destructor stops it, and the kernel kills it
/// when the thread that started it ends (so start it from a thread that lives as long as the child is
/// needed). Standard input is /dev/null. Not thread-safe.
class ChildProcess
{
public:
    /// Throws std::system_error, naming the program, when it can't be run.
    explicit ChildProcess(const Command& command);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return m_pid; }

    /// A descriptor that becomes readable when the child has ended: for poll(). Owned by this object.
    int descriptor() const { return m_pidfd; }

    /// Whether the child ends within that time; woken by the kernel rather than polling.
    bool waitForExit(std::chrono::milliseconds timeout);

    /// The exit status once waitForExit() has returned true, or 128 plus the number of the signal that ended
    /// the child.
    std::optional<int> exitStatus() const { return m_exitStatus; }

    /// Sends a signal; does nothing when the child has been seen to end.
    void signal(int number) const;

    /// Suspends the child (SIGSTOP) and returns when all its threads have stopped; signal(SIGCONT) resumes
    /// it.
    void suspend() const;

    /// Terminates the child (SIGTERM), kills it after ten seconds (SIGKILL), and returns its exit status.
    int stop();

    /// Kills the child (SIGKILL) and waits for its end.
    void kill();

private:
    pid_t m_pid = -1;
    int m_pidfd = -1;
    std::optional<int> m_exitStatus;
};

/// Runs a command to its end and returns its exit status. Throws as ChildProcess does.
int run(const Command& command);

/// The first of these that exists: an absolute path is taken as it is, a bare name is looked up in $PATH.
/// Empty when none exists.
std::filesystem::path findProgram(const std::vector<std::string>& candidates);

} // namespace tavo::test
