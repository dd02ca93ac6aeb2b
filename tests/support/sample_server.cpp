// Serves the sample organisation on loopback until standard input ends or a signal comes: sample_server
// [PEOPLE] Prints URL, administrator's DN and password, one a line, when the server answers, then two lines
// with the numbers of people and groups.
#include "sample_directory.h"
#include "slapd.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <exception>
#include <iostream>

namespace {

/// Turns the signals that ask for an end into something to wait for, so that the server is always stopped
/// properly.
int endSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

} // namespace

int main(int argc, char** argv)
try {
    const int signals = endSignals();
    tavo::test::SampleDirectoryOptions sample;
    if (argc > 1)
        sample.people = std::stoi(argv[1]);
    const tavo::test::SampleDirectory directory = tavo::test::sampleDirectory(sample);
    const tavo::test::Slapd slapd({.ldif = directory.ldif, .checksSchema = false});
    std::cout << slapd.url() << ' ' << slapd.rootDn() << ' ' << slapd.rootPassword() << ' '
              << directory.people << ' ' << directory.peopleWithLogin << ' ' << directory.groups << std::endl;
    std::array<pollfd, 2> ends{{{signals, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
    poll(ends.data(), ends.size(), -1);
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
