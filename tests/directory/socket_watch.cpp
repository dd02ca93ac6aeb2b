#include "socket_watch.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <set>
#include <stdexcept>
#include <system_error>

namespace tavo::test {

namespace {

struct Books
{
    std::mutex mutex;
    bool isKept = false;
    std::size_t connected = 0;
    std::set<int> sockets;
    /// Each is a copy of `inlet`.
    std::set<int> somebodyElses;
    std::vector<std::string> problems;
    /// The ends of a pipe, which keeps what is written to somebody else.
    int inlet = -1;
    int outlet = -1;
};

Books& books()
{
    // Never destroyed: there are calls until the process has ended.
    static auto& books = *new Books;
    return books;
}

template <class Function>
Function* real(Function*, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void noteConnect(int descriptor)
{
    const std::lock_guard lock(books().mutex);
    if (books().isKept && books().sockets.insert(descriptor).second)
        ++books().connected;
}

/// Whether it is no problem.
bool isProper(const std::string& call, int descriptor)
{
    if (!books().isKept)
        return true;
    if (books().somebodyElses.count(descriptor) != 0)
        books().problems.push_back(call + " of somebody else's descriptor");
    else if (fcntl(descriptor, F_GETFD) == -1)
        books().problems.push_back(call + " of a number that isn't open");
    else
        return true;
    return false;
}

/// Closes the socket and gives its number away, with nothing in between.
int handOver(int descriptor)
{
    books().sockets.erase(descriptor);
    books().somebodyElses.insert(descriptor);
    return dup3(books().inlet, descriptor, O_CLOEXEC) == -1 ? -1 : 0;
}

} // namespace

extern "C" {
__attribute__((visibility("default"))) int connect(int descriptor, const sockaddr* address, socklen_t size)
{
    static auto* const next = real(&connect, "connect");
    noteConnect(descriptor);
    return next(descriptor, address, size);
}

__attribute__((visibility("default"))) int shutdown(int descriptor, int how) noexcept
{
    static auto* const next = real(&shutdown, "shutdown");
    {
        const std::lock_guard lock(books().mutex);
        if (!isProper("shutdown", descriptor)) {
            errno = EBADF;
            return -1;
        }
    }
    return next(descriptor, how);
}

__attribute__((visibility("default"))) int close(int descriptor)
{
    static auto* const next = real(&close, "close");
    {
        const std::lock_guard lock(books().mutex);
        if (!isProper("close", descriptor)) {
            errno = EBADF;
            return -1;
        }
        if (books().sockets.count(descriptor) != 0)
            return handOver(descriptor);
    }
    return next(descriptor);
}
}

SocketWatch::SocketWatch()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) == -1)
        throw std::system_error(errno, std::generic_category(), "pipe2");
    const std::lock_guard lock(books().mutex);
    if (books().isKept)
        throw std::logic_error("there is a socket watch already");
    books().isKept = true;
    books().connected = 0;
    books().problems.clear();
    books().outlet = ends[0];
    books().inlet = ends[1];
}

SocketWatch::~SocketWatch()
{
    std::set<int> own;
    {
        const std::lock_guard lock(books().mutex);
        books().isKept = false;
        books().sockets.clear();
        own.swap(books().somebodyElses);
        own.insert({books().inlet, books().outlet});
    }
    for (const int descriptor : own)
        ::close(descriptor);
}

std::size_t SocketWatch::connected() const
{
    const std::lock_guard lock(books().mutex);
    return books().connected;
}

std::vector<int> SocketWatch::open() const
{
    const std::lock_guard lock(books().mutex);
    return {books().sockets.begin(), books().sockets.end()};
}

std::vector<std::string> SocketWatch::problems() const
{
    const std::lock_guard lock(books().mutex);
    char written = 0;
    if (read(books().outlet, &written, 1) == 1)
        books().problems.emplace_back("write to somebody else's descriptor");
    return books().problems;
}

} // namespace tavo::test
