// Records what a real directory server answers, and plays it back, so that a client can be measured alone.
//
//   tavo_replay record FILE PORT   stands between clients and the server on PORT, and writes the exchanges to FILE
//   tavo_replay serve FILE...      answers what is recorded in the files
//
// Both listen on 127.0.0.1, print the port on a line of its own, and end when standard input does. A request is known
// by what it asks for; message ids, the order of attributes and time limits don't matter. A request that isn't
// recorded is written to standard error and ends its connection.
#include "recording.h"
#include "support/ldap_messages.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <mutex>
#include <span>
#include <system_error>
#include <thread>
#include <utility>

namespace {

using namespace tavo::bench;
namespace test = tavo::test;

[[noreturn]] void fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

class Socket
{
public:
    explicit Socket(int descriptor)
        : m_descriptor(descriptor)
    {
        if (descriptor < 0) {
            fail("socket");
        }
        const int on = 1;
        setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    Socket(Socket&& other) noexcept
        : m_descriptor(std::exchange(other.m_descriptor, -1))
    {}
    Socket& operator=(Socket&&) = delete;
    ~Socket()
    {
        if (m_descriptor >= 0) {
            close(m_descriptor);
        }
    }

    int descriptor() const { return m_descriptor; }

    void send(std::string_view bytes) const
    {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent < 0) {
                fail("send");
            }
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
    }

    /// Reads the next whole message. \return false at the end of the connection
    bool receive(std::string& message)
    {
        for (;;) {
            const std::string_view rest = std::string_view(m_received).substr(m_consumed);
            if (const std::size_t length = test::firstElementLength(rest);
                length > 0 && length <= rest.size()) {
                message.assign(rest.substr(0, length));
                m_consumed += length;
                return true;
            }
            m_received.erase(0, m_consumed);
            m_consumed = 0;
            const std::size_t size = m_received.size();
            m_received.resize(size + kChunk);
            const ssize_t received = recv(m_descriptor, m_received.data() + size, kChunk, 0);
            m_received.resize(size + static_cast<std::size_t>(std::max<ssize_t>(received, 0)));
            if (received <= 0) {
                return false;
            }
        }
    }

private:
    static constexpr std::size_t kChunk = 1 << 18;

    int m_descriptor;
    std::string m_received;
    std::size_t m_consumed = 0;
};

sockaddr_in loopback(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

Socket connectTo(std::uint16_t port)
{
    Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    if (connect(socket.descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("connect to the recorded server");
    }
    return socket;
}

Socket listenOnFreePort()
{
    Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    if (bind(socket.descriptor(), reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        listen(socket.descriptor(), SOMAXCONN) != 0 ||
        getsockname(socket.descriptor(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        fail("listen on 127.0.0.1");
    }
    std::cout << ntohs(address.sin_port) << std::endl;
    return socket;
}

/// Gives each connection a thread, until standard input ends.
template <class Conversation>
void acceptUntilInputEnds(const Conversation& conversation)
{
    const Socket listener = listenOnFreePort();
    for (;;) {
        std::array<pollfd, 2> events{{{STDIN_FILENO, POLLIN, 0}, {listener.descriptor(), POLLIN, 0}}};
        if (poll(events.data(), events.size(), -1) < 0) {
            fail("poll");
        }
        if (events[0].revents != 0) {
            return;
        }
        std::thread([&conversation,
                        client = Socket(accept(listener.descriptor(), nullptr, nullptr))]() mutable {
            try {
                conversation(client);
            } catch (const std::exception& error) {
                std::cerr << "tavo_replay: " << error.what() << std::endl;
            }
        }).detach();
    }
}

bool hasNoAnswer(const test::Request& request)
{
    return request.is<test::UnbindRequest>() || request.is<test::AbandonRequest>();
}

void serve(std::span<char*> files)
{
    const Recordings recordings(files);
    acceptUntilInputEnds([&recordings](Socket& client) {
        std::string message;
        while (client.receive(message)) {
            const test::Request request = test::decodeRequest(message);
            if (hasNoAnswer(request)) {
                continue;
            }
            const std::string question = questionOf(request);
            const std::optional<std::string_view> recorded = recordings.answerTo(question);
            if (!recorded) {
                throw std::runtime_error(
                    "not recorded: " + question + "; if clients ask for something new: ./dev bench --record");
            }
            sendAddressed(
                request.messageId, *recorded, [&client](std::string_view piece) { client.send(piece); });
        }
    });
}

/// Everything up to the message that ends an operation.
void passAnswer(Socket& server, Socket& client, std::string& answer)
{
    std::string message;
    answer.clear();
    do {
        if (!server.receive(message)) {
            throw std::runtime_error("the recorded server has closed the connection");
        }
        answer += message;
    } while (!endsOperation(message));
    client.send(answer);
}

void record(const char* file, std::uint16_t port)
{
    Recorder recorder(file);
    std::mutex recorderMutex;
    acceptUntilInputEnds([&](Socket& client) {
        Socket server = connectTo(port);
        std::string message;
        std::string answer;
        while (client.receive(message)) {
            server.send(message);
            const test::Request request = test::decodeRequest(message);
            if (hasNoAnswer(request)) {
                continue;
            }
            passAnswer(server, client, answer);
            const std::lock_guard lock(recorderMutex);
            recorder.add(questionOf(request), answer);
        }
    });
}

} // namespace

int main(int argc, char** argv)
try {
    const std::string_view mode = argc > 2 ? argv[1] : "";
    if (mode == "serve") {
        serve(std::span(argv + 2, argv + argc));
    } else if (mode == "record" && argc == 4) {
        record(argv[2], static_cast<std::uint16_t>(std::stoi(argv[3])));
    } else {
        std::cerr << "usage: tavo_replay record FILE PORT | serve FILE...\n";
        return 2;
    }
    // Threads may still be in a conversation with what is local to this one.
    std::quick_exit(0);
} catch (const std::exception& error) {
    std::cerr << "tavo_replay: " << error.what() << '\n';
    return 1;
}
