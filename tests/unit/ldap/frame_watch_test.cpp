#include "support/ldap_messages.h"
#include <ldap/private/wire/frame_watch.h>

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace tavo::ldap {

namespace {

using test::berNumber;
using test::Bytes;
using test::tlv;

constexpr unsigned kEnumerated = 0x0a;
constexpr unsigned kMessage = 0x30;
constexpr unsigned kText = 0x04;
constexpr unsigned kExtendedResponse = 0x78;
constexpr unsigned kSearchEntry = 0x64;
constexpr unsigned kSearchDone = 0x65;
constexpr unsigned kName = 0x8a;
constexpr unsigned kReferral = 0xa3;

const Bytes kZero = berNumber(0);
const Bytes kResult = berNumber(52, kEnumerated) + tlv(kText, "") + tlv(kText, "going down");

Bytes message(const Bytes& id, const Bytes& operation) { return tlv(kMessage, id + operation); }

Bytes notification(const Bytes& rest, const Bytes& id = kZero)
{
    return message(id, tlv(kExtendedResponse, kResult + rest));
}

const Bytes kEntry = message(berNumber(7), tlv(kSearchEntry, tlv(kText, std::string(300, 'x'))));
const Bytes kGoodNotice = notification(tlv(kName, "1.3.6.1.4.1.1466.20036"));
const Bytes kFatal = notification(tlv(kName, ""));

bool isAdmitted(std::string_view bytes)
{
    FrameWatch watch;
    return watch.admits(bytes);
}

/// How many of the bytes are admitted when they come one by one.
std::size_t admittedOneByOne(std::string_view bytes)
{
    FrameWatch watch;
    std::size_t count = 0;
    while (count < bytes.size() && watch.admits(bytes.substr(count, 1))) {
        ++count;
    }
    return count;
}

TEST(FrameWatch, AdmitsAnswersAndNoticesWithANameOrNone)
{
    const Bytes stream = kEntry + kGoodNotice + notification("") + notification(tlv(0x8b, "")) +
                         notification(tlv(kReferral, tlv(kText, "ldap://a/"))) +
                         message(berNumber(70000), tlv(kSearchEntry, "")) + kEntry;

    EXPECT_TRUE(isAdmitted(stream));
    EXPECT_EQ(admittedOneByOne(stream), stream.size());
}

TEST(FrameWatch, RefusesTheLastByteOfANoticeWithAnEmptyName)
{
    for (const Bytes& before : {Bytes(), kEntry, kGoodNotice + kEntry}) {
        EXPECT_FALSE(isAdmitted(before + kFatal));
        EXPECT_EQ(admittedOneByOne(before + kFatal), before.size() + kFatal.size() - 1);
    }
}

TEST(FrameWatch, RefusesAnEmptyNameHoweverTheIdAndLengthsAreWritten)
{
    const Bytes operation = tlv(kExtendedResponse, kResult + tlv(kName, ""));
    const Bytes longName = tlv(kExtendedResponse, kResult + Bytes("\x8a\x84\0\0\0\0", 6));
    for (const Bytes& id : {Bytes("\x02\x00", 2), Bytes("\x02\x04\0\0\0\0", 6), Bytes("\x02\x81\x01\x00", 4),
             Bytes("\x0a\x01\x00", 3), Bytes("\x02\x05\0\0\0\0\0", 7)}) {
        EXPECT_FALSE(isAdmitted(message(id, operation))) << testing::PrintToString(id);
        EXPECT_FALSE(isAdmitted(message(id, longName))) << testing::PrintToString(id);
    }
    const Bytes content = kZero + operation;
    const auto size = static_cast<char>(content.size());
    EXPECT_FALSE(isAdmitted(Bytes("\x30\x84\0\0\0", 5) + size + content));
}

TEST(FrameWatch, RefusesAnEmptyNameWhereverItMayBeLookedFor)
{
    const Bytes name = tlv(kName, "");
    const Bytes code = berNumber(0, kEnumerated);
    const Bytes text = tlv(kText, "");
    const std::vector<Bytes> contents{
        // Behind the operation; behind what can't be decoded: too long a code, a NUL in the matched DN.
        kZero + tlv(kExtendedResponse, code + text + text) + name,
        kZero + tlv(kExtendedResponse, Bytes("\x0a\x05\0\0\0\0\0", 7) + name + text),
        kZero + tlv(kExtendedResponse, code + tlv(kText, std::string("a\0b", 3)) + name),
        kZero + tlv(kExtendedResponse, name),
        kZero + tlv(kExtendedResponse, Bytes("\x1f\x81\x01\x00", 4) + name),
        // The answers to who-am-I and StartTLS, also behind a referral.
        berNumber(3) + tlv(kExtendedResponse, code + text + text + name),
        berNumber(70000) + tlv(kExtendedResponse, code + text + text + tlv(kName, std::string("\0x", 2))),
        Bytes("\x02\x81\x01\x05", 4) +
            tlv(kExtendedResponse, code + text + text + tlv(kReferral, tlv(kText, "ldap://a/")) + name),
    };
    for (const Bytes& content : contents) {
        EXPECT_FALSE(isAdmitted(tlv(kMessage, content))) << testing::PrintToString(content);
        EXPECT_EQ(admittedOneByOne(tlv(kMessage, content)), tlv(kMessage, content).size() - 1);
    }
    EXPECT_FALSE(isAdmitted(message(Bytes("\x1f\x02\x01\x00", 4), tlv(kExtendedResponse, name))));
}

TEST(FrameWatch, AdmitsWhatNeitherItNorTheClientLibraryCanRead)
{
    for (const Bytes& content : {Bytes(), Bytes("\x0a"), berNumber(0, kEnumerated), kResult + "\x8a",
             kResult + Bytes("\x8a\x05"
                             "12",
                           4),
             Bytes("\x0a\x84\x7f\xff\xff\xff", 6)}) {
        EXPECT_TRUE(isAdmitted(message(kZero, tlv(kExtendedResponse, content))))
            << testing::PrintToString(content);
    }
}

TEST(FrameWatch, AdmitsAnswersOfAnySizeHoweverTheirIdIsWritten)
{
    const Bytes large = tlv(kSearchEntry, tlv(kText, std::string(200'000, 'x')));
    EXPECT_TRUE(isAdmitted(message(Bytes("\x02\x81\x01\x05", 4), large) + kEntry));
    EXPECT_TRUE(isAdmitted(message(kZero, large) + kEntry));
}

TEST(FrameWatch, RefusesANoticeThatNeverEnds)
{
    const Bytes start = Bytes("\x30\x84\x7f\xff\xff\xff", 6) + kZero + Bytes("\x78\x84\x7f\xff\xff\xf0", 6);
    FrameWatch watch;
    EXPECT_TRUE(watch.admits(start));
    const std::string more(1024, 'x');
    int count = 0;
    while (watch.admits(more)) {
        ASSERT_LT(++count, 64);
    }
    EXPECT_EQ(count, 63);
}

TEST(FrameWatch, KeepsNothingOfOtherMessages)
{
    // Its length is that of a page of 100 MB; only the start of it comes.
    FrameWatch watch;
    EXPECT_TRUE(watch.admits(Bytes("\x30\x84\x06\x00\x00\x00\x02\x01\x05", 9)));
    for (int i = 0; i < 10'000; ++i) {
        ASSERT_TRUE(watch.admits(kFatal));
    }
}

TEST(FrameWatch, LeavesWhatNobodyCanReadToTheClientLibrary)
{
    for (const Bytes& whole : {message(kZero, ""), tlv(kMessage, "id"), message(kZero, "\x78\x80")}) {
        EXPECT_TRUE(isAdmitted(whole)) << testing::PrintToString(whole);
    }
    for (const Bytes& start :
        {Bytes("HTTP/1.1 400"), Bytes("\x30\x80", 2), Bytes("\x30\x00", 2), Bytes("\x30\x85\1\1\1\1\1", 7)}) {
        EXPECT_TRUE(isAdmitted(start + kFatal)) << testing::PrintToString(start);
    }
}

TEST(FrameWatch, BeginsAnewWithEachConnection)
{
    FrameWatch watch;
    EXPECT_TRUE(watch.admits(kEntry.substr(0, 20)));
    watch.reset();
    EXPECT_FALSE(watch.admits(kFatal));
}

Bytes entryOf(std::int64_t request, std::size_t size)
{
    return message(berNumber(request), tlv(kSearchEntry, tlv(kText, std::string(size, 'x'))));
}

Bytes endOf(std::int64_t request) { return message(berNumber(request), tlv(kSearchDone, kResult)); }

TEST(FrameWatch, RefusesTheLengthOfTooLongAMessage)
{
    const Bytes fits = entryOf(1, 100);
    const std::size_t content = fits.size() - 2;
    FrameWatch watch({.message = content});
    EXPECT_TRUE(watch.admits(fits + fits + fits));

    const Bytes tooLong = entryOf(1, 101);
    EXPECT_TRUE(watch.admits(tooLong.substr(0, 1)));
    EXPECT_FALSE(watch.admits(tooLong.substr(1, 1)));
    EXPECT_EQ(watch.verdict(), FrameWatch::Verdict::messageTooLong);
    EXPECT_FALSE(watch.admits(fits));
}

TEST(FrameWatch, CountsAnAnswerToItsEnd)
{
    const Bytes one = entryOf(1, 100);
    FrameWatch watch({.answer = 3 * one.size()});
    for (int page = 0; page < 4; ++page) {
        EXPECT_TRUE(watch.admits(one + one + endOf(1)));
    }
    EXPECT_TRUE(watch.admits(one + one));
    EXPECT_FALSE(watch.admits(one + one));
    EXPECT_EQ(watch.verdict(), FrameWatch::Verdict::answerTooLong);
}

TEST(FrameWatch, CountsTheAnswersOfEachRequest)
{
    const Bytes one = entryOf(1, 100);
    FrameWatch watch({.answer = 3 * one.size()});
    EXPECT_TRUE(watch.admits(one + entryOf(2, 100) + one + entryOf(2, 100) + entryOf(300'000, 100)));
    EXPECT_FALSE(watch.admits(entryOf(2, 200)));
}

TEST(FrameWatch, CountsReferencesAndIntermediateAnswersToo)
{
    for (const unsigned operation : {0x73U, 0x79U}) {
        const Bytes part = message(berNumber(1), tlv(operation, std::string(100, 'x')));
        FrameWatch watch({.answer = 2 * part.size()});
        EXPECT_TRUE(watch.admits(part + part));
        EXPECT_FALSE(watch.admits(part));
    }
}

TEST(FrameWatch, RefusesTheLengthOfAMessageThatIsTooLongAnAnswer)
{
    FrameWatch watch({.answer = 100});
    EXPECT_FALSE(watch.admits(entryOf(1, 200).substr(0, 3)));
    EXPECT_EQ(watch.verdict(), FrameWatch::Verdict::answerTooLong);
}

// The client library takes an id with any tag.
TEST(FrameWatch, RefusesAnIdThatItCannotCountWhereAnswersAreLimited)
{
    const Bytes entry = tlv(kSearchEntry, tlv(kText, std::string(100, 'x')));
    for (const Bytes& id : {Bytes("\x0a\x01\x05", 3), Bytes("\x02\x81\x20", 3) + Bytes(31, '\0') + '\5',
             Bytes("\x1f\x02\x01\x05", 4)}) {
        FrameWatch watch({.answer = 100'000});
        EXPECT_FALSE(watch.admits(message(id, entry))) << testing::PrintToString(id);
        EXPECT_EQ(watch.verdict(), FrameWatch::Verdict::fatal);
        EXPECT_TRUE(isAdmitted(message(id, entry))) << testing::PrintToString(id);
    }
    FrameWatch watch({.answer = 100'000});
    EXPECT_FALSE(watch.admits(tlv(kMessage, "id")));
}

// What is counted takes memory, too.
TEST(FrameWatch, CountsNoMoreAnswersThanCanBeUnderWay)
{
    FrameWatch watch({.answer = 1'000'000});
    int request = 0;
    while (request < 100'000 && watch.admits(entryOf(++request, 1))) {
    }
    EXPECT_EQ(watch.verdict(), FrameWatch::Verdict::answerTooLong);
    EXPECT_LT(request, 10'000);
}

TEST(FrameWatch, KeepsItsLimitsForTheNextConnection)
{
    FrameWatch watch({.message = 100});
    EXPECT_FALSE(watch.admits(entryOf(1, 200)));
    watch.reset();
    EXPECT_TRUE(watch.admits(entryOf(1, 20)));
    EXPECT_FALSE(watch.admits(entryOf(1, 200)));
}

} // namespace

} // namespace tavo::ldap
