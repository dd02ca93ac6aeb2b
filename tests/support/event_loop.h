#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace tavo::test {

/// Owns a file descriptor.
class FileDescriptor
{
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd)
        : m_fd(fd)
    {}
    FileDescriptor(FileDescriptor&& other) noexcept
        : m_fd(std::exchange(other.m_fd, -1))
    {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~FileDescriptor() { close(); }

    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    void close();

private:
    int m_fd = -1;
};

/// Throws `std::system_error` with the current `errno`.
[[noreturn]] void throwErrno(const char* what);

/// A listening, non-blocking TCP socket on a free port of 127.0.0.1.
FileDescriptor listenOnLoopback();

/// The port that a bound socket has.
std::uint16_t localPort(const FileDescriptor& socket);

/// Accepts one connection, non-blocking and without Nagle's delay; empty when none is waiting.
FileDescriptor acceptConnection(const FileDescriptor& listener);

/// Makes the close of the socket send a reset.
void resetOnClose(const FileDescriptor& socket);

/// A thread that waits on file descriptors with epoll and runs posted functions.
///
/// `watch`, `change` and `unwatch` are for the loop's own thread: call them from a callback or a posted
/// function. An owner whose callbacks capture it declares its loop as its last member, so that the thread
/// ends before anything that it uses is destroyed.
class EventLoop
{
public:
    /// Through this, other threads post. It may outlive the loop, and then drops what is posted.
    class Mailbox;
    using Callback = std::function<void(std::uint32_t events)>;
    using Watch = std::uint64_t;

    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    std::shared_ptr<Mailbox> mailbox() const { return m_mailbox; }

    /// Runs `function` on the loop's thread, in the order of posting.
    void post(std::function<void()> function);

    Watch watch(int fd, std::uint32_t events, Callback callback);
    void change(Watch watch, std::uint32_t events);
    void unwatch(Watch watch);

    /// Stops and joins the thread; posted functions that have not run are dropped. Idempotent.
    void stop();

private:
    struct Watched
    {
        int fd;
        Callback callback;
    };

    void run();

    FileDescriptor m_epoll;
    std::shared_ptr<Mailbox> m_mailbox;
    Watch m_lastWatch = 0;
    std::map<Watch, std::shared_ptr<Watched>> m_watched;
    std::thread m_thread;
};

class EventLoop::Mailbox
{
public:
    Mailbox();

    void post(std::function<void()> function);

private:
    friend class EventLoop;

    FileDescriptor m_wakeUp;
    std::mutex m_mutex;
    bool m_closed = false;
    std::vector<std::function<void()>> m_functions;
};

} // namespace tavo::test
