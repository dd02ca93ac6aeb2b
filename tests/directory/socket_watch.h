#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tavo::test {

/// Watches what becomes of every socket that this process connects or tries to connect, whichever library does,
/// in a host where a number never stays free: as soon as such a socket is closed, its number is somebody
/// else's, and stays so for the life of the watch. There is one at a time.
///
/// The program's own connect(), shutdown() and close() stand before the C library's, for the shared libraries
/// only when the program exports its symbols.
class SocketWatch
{
public:
    SocketWatch();
    ~SocketWatch();
    SocketWatch(const SocketWatch&) = delete;
    SocketWatch& operator=(const SocketWatch&) = delete;

    /// How many sockets have been connected, or tried to.
    std::size_t connected() const;
    /// Those among them that have not been closed.
    std::vector<int> open() const;
    /// What was done to somebody else's descriptor, or to a number that isn't open.
    std::vector<std::string> problems() const;
};

} // namespace tavo::test
