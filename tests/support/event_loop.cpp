#include "support/event_loop.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace tavo::test {

void FileDescriptor::close()
{
    if (m_fd >= 0)
        ::close(std::exchange(m_fd, -1));
}

void throwErrno(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

FileDescriptor listenOnLoopback()
{
    FileDescriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!listener)
        throwErrno("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throwErrno("bind");
    if (::listen(listener.get(), SOMAXCONN) != 0)
        throwErrno("listen");
    return listener;
}

std::uint16_t localPort(const FileDescriptor& socket)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throwErrno("getsockname");
    return ntohs(address.sin_port);
}

FileDescriptor acceptConnection(const FileDescriptor& listener)
{
    FileDescriptor socket(::accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket) {
        const int on = 1;
        ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    return socket;
}

void resetOnClose(const FileDescriptor& socket)
{
    const linger abortive{.l_onoff = 1, .l_linger = 0};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
}

EventLoop::Mailbox::Mailbox()
    : m_wakeUp(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
    if (!m_wakeUp)
        throwErrno("eventfd");
}

void EventLoop::Mailbox::post(std::function<void()> function)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_closed)
            return;
        m_functions.push_back(std::move(function));
    }
    ::eventfd_write(m_wakeUp.get(), 1);
}

EventLoop::EventLoop()
    : m_epoll(::epoll_create1(EPOLL_CLOEXEC))
    , m_mailbox(std::make_shared<Mailbox>())
{
    if (!m_epoll)
        throwErrno("epoll_create1");
    const int wakeUp = m_mailbox->m_wakeUp.get();
    watch(wakeUp, EPOLLIN, [wakeUp](std::uint32_t) {
        eventfd_t count = 0;
        ::eventfd_read(wakeUp, &count);
    });
    m_thread = std::thread([this] { run(); });
}

EventLoop::~EventLoop() { stop(); }

void EventLoop::post(std::function<void()> function) { m_mailbox->post(std::move(function)); }

EventLoop::Watch EventLoop::watch(int fd, std::uint32_t events, Callback callback)
{
    const Watch watch = ++m_lastWatch;
    m_watched[watch] = std::make_shared<Watched>(Watched{fd, std::move(callback)});
    epoll_event event{.events = events, .data = {.u64 = watch}};
    if (::epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &event) != 0)
        throwErrno("epoll_ctl");
    return watch;
}

void EventLoop::change(Watch watch, std::uint32_t events)
{
    epoll_event event{.events = events, .data = {.u64 = watch}};
    if (::epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, m_watched.at(watch)->fd, &event) != 0)
        throwErrno("epoll_ctl");
}

void EventLoop::unwatch(Watch watch)
{
    const auto found = m_watched.find(watch);
    if (found == m_watched.end())
        return;
    ::epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, found->second->fd, nullptr);
    m_watched.erase(found);
}

void EventLoop::stop()
{
    if (!m_thread.joinable())
        return;
    {
        const std::lock_guard lock(m_mailbox->m_mutex);
        m_mailbox->m_closed = true;
    }
    ::eventfd_write(m_mailbox->m_wakeUp.get(), 1);
    m_thread.join();
}

void EventLoop::run()
{
    std::array<epoll_event, 64> events;
    while (true) {
        std::vector<std::function<void()>> functions;
        {
            const std::lock_guard lock(m_mailbox->m_mutex);
            functions.swap(m_mailbox->m_functions);
            if (m_mailbox->m_closed)
                return;
        }
        for (const auto& function : functions)
            function();
        const int count = ::epoll_wait(m_epoll.get(), events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < count; ++i) {
            // A callback may have unwatched what comes later in this batch: looked up, not pointed to.
            const auto& event = events[static_cast<std::size_t>(i)];
            const auto found = m_watched.find(event.data.u64);
            if (found == m_watched.end())
                continue;
            const auto watched = found->second;
            watched->callback(event.events);
        }
    }
}

} // namespace tavo::test
