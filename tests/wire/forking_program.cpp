// forking_program URL: searches there, and forks a child that ends at once; ends with 0 when the child has.
// forking_program URL daemon: forks a child that searches there and ends; ends with 0 when the child has waited
// for the search's thread.
#include <ldap/session.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
#include <iterator>
#include <variant>

namespace {

bool isForkedChild = false;

/// From one process to another.
struct Pipe
{
    Pipe()
    {
        if (pipe(ends) != 0)
            std::abort();
    }
    int ends[2] = {};
};

/// Waits for a byte, or for the end of the process that writes.
void waitFor(const Pipe& pipe)
{
    char byte = 0;
    if (read(pipe.ends[0], &byte, 1) < 0)
        std::abort();
}

int statusOf(pid_t child)
{
    int status = -1;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : 4;
}

int forkAChildThatEnds(const tavo::utils::Url& url)
{
    tavo::ldap::Session session(url, false, false);
    // Leaves its thread, which has ended, to be joined by whoever comes next.
    if (std::holds_alternative<tavo::ldap::Result>(session.search({}, 10)))
        return 3;

    const pid_t child = fork();
    if (child == 0) {
        isForkedChild = true;
        std::exit(0);
    }
    return statusOf(child);
}

/// Holds up the end of its thread.
struct SlowToEnd
{
    std::promise<void>& isEnding;
    const Pipe& mayEnd;

    ~SlowToEnd()
    {
        isEnding.set_value();
        waitFor(mayEnd);
    }
};

/// Ends while the thread of its search does.
[[noreturn]] void searchAndEnd(const tavo::utils::Url& url, const Pipe& ends, const Pipe& threadMayEnd)
{
    tavo::ldap::Session session(url, false, false);
    std::promise<void> isStarted;
    std::promise<void> isEnding;
    const auto leaveAnObject = [&](auto...) {
        // Or the start, which owns the search, too, might wait for its end.
        isStarted.get_future().get();
        thread_local const SlowToEnd onThisThread{isEnding, threadMayEnd};
    };
    session.asyncSearch({}, leaveAnObject, 10);
    isStarted.set_value();
    isEnding.get_future().get();
    if (write(ends.ends[1], "x", 1) != 1)
        std::abort();
    std::exit(0);
}

int forkADaemon(const tavo::utils::Url& url)
{
    const Pipe ends;
    const Pipe threadMayEnd;
    const pid_t child = fork();
    if (child == 0) {
        close(threadMayEnd.ends[1]);
        searchAndEnd(url, ends, threadMayEnd);
    }
    close(ends.ends[1]);
    waitFor(ends);
    pollfd ended{ends.ends[0], POLLIN, 0};
    const bool hasEndedBeforeItsThread = poll(&ended, 1, /*milliseconds*/ 100) != 0;
    close(threadMayEnd.ends[1]);
    const int status = statusOf(child);
    return hasEndedBeforeItsThread ? 5 : status;
}

} // namespace

/// What the threads of the parent own is no leak of the child, which has its memory and not its threads.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off();
int __lsan_is_turned_off() { return isForkedChild ? 1 : 0; }

/// Nor are they the child's to join, if they have ended by then.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options();
const char* __tsan_default_options() { return "halt_on_error=1:report_thread_leaks=0"; }

int main(int argc, char** argv)
{
    if (argc < 2)
        return 2;
    const tavo::utils::Url url(QString::fromUtf8(argv[1]));
    return argc == 2 ? forkAChildThatEnds(url) : forkADaemon(url);
}
