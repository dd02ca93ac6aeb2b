#include "support/assertion_capture.h"
#include <ldap/result.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <type_traits>

namespace tavo::ldap {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(std::is_same_v<std::underlying_type_t<Result>, std::int32_t>);

struct KnownResult
{
    Result result;
    int number;
    const char* text;
};

const KnownResult knownResults[] = {
    {Result::ok, 0, "OK"},
    {Result::moreResults, 1, "More results to be returned from the LDAP server."},
    {Result::noSuchObject, 2, "No target object found."},
    {Result::sizeLimitExceeded, 3,
        "Search limit exceeded. Narrow the searchPageSize in LDAP settings or fix the LDAP server "
        "configuration."},
    {Result::invalidCredentials, 4, "Invalid LDAP credentials."},
    {Result::cancelled, 5, "LDAP search is cancelled."},
    {Result::connectError, 100, "Cannot connect to LDAP server."},
};

TEST(ResultTest, HasAFixedNumberAndTextForEachOutcome)
{
    const test::AssertionCapture assertions;
    for (const KnownResult& known : knownResults) {
        EXPECT_EQ(static_cast<int>(known.result), known.number);
        EXPECT_EQ(toString(known.result), known.text);
    }
    EXPECT_THAT(assertions.failures(), IsEmpty());
}

TEST(ResultTest, ReportsANumberThatIsNoResultAndNamesIt)
{
    for (const int number : {6, -1, 99, 101}) {
        const test::AssertionCapture assertions;
        EXPECT_EQ(toString(static_cast<Result>(number)), "Unknown LDAP error: " + std::to_string(number));
        EXPECT_THAT(assertions.failures(), ElementsAre(test::AssertionCapture::Failure{"ldap/result", 30,
                                               "false", "Unknown LDAP result " + std::to_string(number)}));
    }
}

TEST(TranslateErrorCodeTest, CondensesTheCodesThatHaveAnOutcomeOfTheirOwn)
{
    EXPECT_EQ(translateErrorCode(0), Result::ok);
    EXPECT_EQ(translateErrorCode(32), Result::noSuchObject);
    EXPECT_EQ(translateErrorCode(-7), Result::noSuchObject);
    EXPECT_EQ(translateErrorCode(-14), Result::noSuchObject);
    EXPECT_EQ(translateErrorCode(4), Result::sizeLimitExceeded);
    EXPECT_EQ(translateErrorCode(49), Result::invalidCredentials);
    EXPECT_EQ(translateErrorCode(-8), Result::cancelled);
}

TEST(TranslateErrorCodeTest, MakesEveryOtherCodeAConnectError)
{
    const std::set<int> special{0, 32, -7, -14, 4, 49, -8};
    for (int code = -50; code <= 20000; ++code) {
        if (special.count(code) == 0) {
            ASSERT_EQ(translateErrorCode(code), Result::connectError) << code;
        }
    }
}

} // namespace
} // namespace tavo::ldap
