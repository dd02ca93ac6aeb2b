#include "support/child_process.h"
#include "support/scripted_server.h"

#include <gtest/gtest.h>

#include <csignal>

namespace tavo::test {

namespace {

TEST(ForkedChild, EndsWithoutWaitingForTheThreadsOfItsParent)
{
    ScriptedServer server;
    server.expectSearch().answer(done());
    // A program of its own: the child of a test would end with the test's own threads to wait for.
    ChildProcess program({.words = {TAVO_FORKING_PROGRAM, server.url()}});

    const bool hasEnded = program.waitForExit(kDeadline / 4);
    EXPECT_TRUE(hasEnded);
    EXPECT_EQ(program.exitStatus(), 0);
}

// As a server does that becomes a daemon after it has loaded the library.
TEST(ForkedChild, WaitsForTheThreadsOfItsOwn)
{
    ScriptedServer server;
    server.expectSearch().answer(done());
    ChildProcess program({.words = {TAVO_FORKING_PROGRAM, server.url(), "daemon"}});

    const bool hasEnded = program.waitForExit(kDeadline / 4);
    EXPECT_TRUE(hasEnded);
    EXPECT_EQ(program.exitStatus(), 0);
}

} // namespace

} // namespace tavo::test
