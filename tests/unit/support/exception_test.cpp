#include <tavo_utils/exception.h>

#include <gtest/gtest.h>

#include <latch>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tavo::utils {
namespace {

class TextError : public Exception
{
public:
    explicit TextError(QString text)
        : m_text(std::move(text))
    {}
    QString message() const override { return m_text; }

private:
    QString m_text;
};

class DetailedError final : public TextError
{
public:
    explicit DetailedError(QString text)
        : TextError(std::move(text))
    {}
    QString message() const override { return TextError::message() + QStringLiteral(", in detail"); }
};

class OpenError final : public Exception
{
public:
    explicit OpenError(QString initial)
        : text(std::move(initial))
    {}
    QString message() const override { return QStringLiteral("failed: ") + text; }

    QString text;
};

class UnspeakableError final : public Exception
{
public:
    QString message() const override { throw std::bad_alloc(); }
};

TEST(Exception, ReflectsTheMessageAsUtf8)
{
    const TextError error(QStringLiteral("Zugriff für Ölgötz verweigert 😀"));
    EXPECT_STREQ(error.what(), "Zugriff für Ölgötz verweigert 😀");
}

TEST(Exception, ReflectsTheMostDerivedMessage)
{
    const DetailedError error(QStringLiteral("it failed"));
    const std::exception& base = error;
    EXPECT_STREQ(base.what(), "it failed, in detail");
}

TEST(Exception, KeepsItsTextInPlaceAsLongAsTheMessageStays)
{
    for (const char* const text : {"", "short", "much longer than a text that fits into its object"}) {
        const TextError error(QString::fromUtf8(text));
        const char* const first = error.what();
        EXPECT_STREQ(first, text);
        EXPECT_EQ(error.what(), first);
    }
}

TEST(Exception, FollowsAFieldThatChanges)
{
    OpenError error(QStringLiteral("once"));
    EXPECT_STREQ(error.what(), "failed: once");
    error.text = QStringLiteral("and again, at greater length");
    EXPECT_STREQ(error.what(), "failed: and again, at greater length");
    error.text.clear();
    EXPECT_STREQ(error.what(), "failed: ");
}

TEST(Exception, ComposesTheTextOfACopyAnew)
{
    const DetailedError detailed(QStringLiteral("it failed"));
    EXPECT_STREQ(detailed.what(), "it failed, in detail");
    const TextError sliced = detailed; // NOLINT(cppcoreguidelines-slicing): what is tested
    EXPECT_STREQ(sliced.what(), "it failed");
}

TEST(Exception, TakesOverTheTextOfWhatIsAssigned)
{
    TextError error(QStringLiteral("old"));
    EXPECT_STREQ(error.what(), "old");
    error = TextError(QStringLiteral("new"));
    EXPECT_STREQ(error.what(), "new");
    const TextError& same = error;
    error = same;
    EXPECT_STREQ(error.what(), "new");
}

TEST(Exception, FallsBackToAFixedTextWhenTheMessageCannotBeComposed)
{
    const UnspeakableError error;
    EXPECT_STREQ(error.what(), "tavo::utils::Exception (the message could not be composed)");
}

TEST(Exception, GivesManyThreadsTheSameText)
{
    for (int round = 0; round < 100; ++round) {
        OpenError error(QStringLiteral("before"));
        static_cast<void>(error.what());
        error.text = QString::number(round);
        const std::string expected = "failed: " + std::to_string(round);
        std::latch start(4);
        std::vector<const char*> seen(4);
        {
            std::vector<std::jthread> threads;
            for (const char*& text : seen) {
                threads.emplace_back([&] {
                    start.arrive_and_wait();
                    text = error.what();
                });
            }
        }
        for (const char* const text : seen) {
            ASSERT_EQ(text, seen.front());
            ASSERT_EQ(text, expected);
        }
    }
}

TEST(Exception, IsCaughtAsAStandardException)
{
    try {
        throw DetailedError(QStringLiteral("it failed"));
    } catch (const std::exception& error) {
        EXPECT_STREQ(error.what(), "it failed, in detail");
    }
}

} // namespace
} // namespace tavo::utils
