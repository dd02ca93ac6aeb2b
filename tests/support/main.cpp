// main() of every test program.
#include "deadline.h"
#include "test_outcome.h"
#include "threads_end_here.h"

#include <gtest/gtest.h>

extern "C" {

// The sanitizers ask these functions for what else would be environment variables, so that a test behaves the
// same however it is started.
__attribute__((visibility("default"))) const char* __asan_default_options()
{
    return "detect_stack_use_after_return=1:check_initialization_order=1:strict_string_checks=1";
}

__attribute__((visibility("default"))) const char* __ubsan_default_options() { return "print_stacktrace=1"; }

__attribute__((visibility("default"))) const char* __tsan_default_options()
{
    return "halt_on_error=1:second_deadlock_stack=1";
}

} // extern "C"

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    tavo::test::testHasFailed = &::testing::Test::HasFailure;
    ::testing::UnitTest::GetInstance()->listeners().Append(
        new tavo::test::Deadline(tavo::test::Deadline::configuredLimit()));
    // A search that nobody waits for any more would else be caught half way through its end by the end of the
    // process.
    const tavo::test::ThreadsEndHere threads;
    return RUN_ALL_TESTS();
}

// What ThreadSanitizer is not to report, each with its reason. It looks for this function by its name.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();

const char* __tsan_default_suppressions()
{
    // A handler that starts a search from an intermediate call locks the new context's mutex under the
    // session's, against the usual order. It is the first to do so, before the search has a thread that could
    // do it the usual way round.
    return "deadlock:tavo::ldap::Session::asyncSearch\n";
}
