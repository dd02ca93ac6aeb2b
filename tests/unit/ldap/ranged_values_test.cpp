#include "support/qt_printers.h"
#include <ldap/error.h>
#include <ldap/ranged_values.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <string>

namespace tavo::ldap {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

QString text(const std::string& utf8) { return QString::fromStdString(utf8); }

/// The values `first` to `last`, named by their numbers, as the range that `name` says.
Attribute range(const char* name, int first, int last)
{
    Attribute made{text(name), {}};
    for (int i = first; i <= last; ++i) {
        made.values.push_back(QString::number(i));
    }
    return made;
}

std::string parsed(const char* description, const char* attribute = "member")
{
    const auto found = ValueRange::parse(text(description), text(attribute));
    if (!found) {
        return "none";
    }
    return std::to_string(found->first) + ".." + (found->last ? std::to_string(*found->last) : "end");
}

int codeOfAdding(RangedValues& values, Attribute added)
{
    try {
        values.add(std::move(added));
        return LDAP_SUCCESS;
    } catch (const BaseError& error) {
        return error.ldapCode;
    }
}

TEST(ValueRangeTest, IsReadFromTheDescription)
{
    EXPECT_EQ(parsed("member;range=0-1499"), "0..1499");
    EXPECT_EQ(parsed("MEMBER;Range=1500-*"), "1500..end");
    EXPECT_EQ(parsed("member;range=7-7"), "7..7");
}

TEST(ValueRangeTest, IsNoneOfAnythingElse)
{
    for (const char* const description :
        {"member", "memberOf;range=0-1", "member;binary", "member;range=", "member;range=1", "member;range=-",
            "member;range=-*", "member;range=2-1", "member;range=+1-2", "member;range=1-2-3",
            "member;range= 1-2", "member;range=99999999999999999999-*", "member;range=0-1;x"}) {
        EXPECT_EQ(parsed(description), "none") << description;
    }
}

TEST(RangedValuesTest, AsksOnwardFromWhatItHas)
{
    RangedValues values(text("member"));
    values.add(range("member;range=0-2", 0, 2));

    EXPECT_FALSE(values.isComplete());
    EXPECT_EQ(values.next(), "member;range=3-*");
}

TEST(RangedValuesTest, PutsRangesOfAnyLengthTogether)
{
    RangedValues values(text("member"));
    values.add(range("member;range=0-1", 0, 1));
    values.add(range("Member;range=2-2", 2, 2));
    values.add(range("member;range=3-*", 3, 5));

    EXPECT_TRUE(values.isComplete());
    EXPECT_THAT(values.take(), ElementsAre(text("0"), text("1"), text("2"), text("3"), text("4"), text("5")));
    EXPECT_THAT(values.take(), IsEmpty());
}

TEST(RangedValuesTest, DropsAnOverlapByNumberAndKeepsEqualValues)
{
    RangedValues values(text("member"));
    values.add({text("member;range=0-1"), {text("x"), text("x")}});
    values.add({text("member;range=1-*"), {text("y"), text("x")}});

    EXPECT_THAT(values.take(), ElementsAre(text("x"), text("x"), text("x")));
}

TEST(RangedValuesTest, RefusesAnAnswerThatCannotContinueTheList)
{
    for (const Attribute& bad : {range("member;range=3-*", 3, 4), range("member;range=0-1", 0, 1),
             range("member;range=0-2", 0, 1), range("member;range=2-9", 2, 3),
             range("member;range=2-*", 2, 1), range("other;range=2-*", 2, 3), range("member", 0, 3)}) {
        RangedValues values(text("member"));
        values.add(range("member;range=0-1", 0, 1));
        EXPECT_EQ(codeOfAdding(values, bad), LDAP_DECODING_ERROR) << bad.name.toStdString();
        EXPECT_EQ(values.next(), "member;range=2-*") << "what it has stays";
    }
}

TEST(RangedValuesTest, HoldsNoMoreThanItsLimit)
{
    RangedValues values(text("member"));
    const Attribute all{text("member;range=0-*"), std::vector<QString>(RangedValues::kMaxValues)};
    const Attribute tooMany{all.name, std::vector<QString>(RangedValues::kMaxValues + 1)};

    EXPECT_EQ(codeOfAdding(values, tooMany), LDAP_DECODING_ERROR);
    EXPECT_EQ(codeOfAdding(values, all), LDAP_SUCCESS);
    EXPECT_THAT(values.take(), SizeIs(RangedValues::kMaxValues));
}

} // namespace
} // namespace tavo::ldap
