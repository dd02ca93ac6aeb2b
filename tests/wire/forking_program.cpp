// forking_program URL: searches there, and forks a child that ends at once; ends with 0 when the child has.
#include <ldap/session.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iterator>
#include <variant>

namespace {

bool isForkedChild = false;

} // namespace

/// What the threads of the parent own is no leak of the child, which has its memory and not its threads.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off();
int __lsan_is_turned_off() { return isForkedChild ? 1 : 0; }

/// Nor are they the child's to join, if they have ended by then.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options();
const char* __tsan_default_options() { return "halt_on_error=1:report_thread_leaks=0"; }

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    tavo::ldap::Session session(tavo::utils::Url(QString::fromUtf8(argv[1])), false, false);
    // Leaves its thread, which has ended, to be joined by whoever comes next.
    if (std::holds_alternative<tavo::ldap::Result>(session.search({}, 10)))
        return 3;

    const pid_t child = fork();
    if (child == 0) {
        isForkedChild = true;
        std::exit(0);
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : 4;
}
