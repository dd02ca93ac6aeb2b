// main() of every test program.
#include "deadline.h"
#include "sanitizer_defaults.h"
#include "test_outcome.h"
#include "threads_end_here.h"

#include <gtest/gtest.h>

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
