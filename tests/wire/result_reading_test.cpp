#include "scripted_session_test.h"
#include "support/log_capture.h"
#include <ldap/tavo_ldap_ini.h>
#include <tavo_utils/scope_guard.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace tavo::test {

namespace {

using ldap::Result;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

class ResultReading : public ScriptedSessionTest
{
protected:
    /// The entries of a search without paging.
    std::vector<ldap::SearchEntry> read(std::vector<QByteArray> attributes = {})
    {
        auto params = below("dc=x");
        params.attributes = std::move(attributes);
        return session.simpleSearch(std::move(params));
    }
};

std::vector<std::string> valuesOf(const ldap::Attribute& attribute)
{
    std::vector<std::string> values;
    for (const auto& value : attribute.values)
        values.push_back(utf8(value));
    return values;
}

std::vector<std::string> namesOf(const ldap::SearchEntry& found)
{
    std::vector<std::string> names;
    for (const auto& attribute : found.attributes)
        names.push_back(utf8(attribute.name));
    return names;
}

TEST_F(ResultReading, KeepsAValueBeyondItsNulByte)
{
    server.expectSearch().answer(entry("cn=a").attr("data", {Bytes("a\0b", 3), Bytes("\0", 1), ""}), done());

    EXPECT_THAT(valuesOf(read().at(0).attributes.at(0)), ElementsAre(Bytes("a\0b", 3), Bytes("\0", 1), ""));
}

TEST_F(ResultReading, ReplacesInvalidUtf8)
{
    server.expectSearch().answer(entry("cn=a").attr("data", {"a\xff"
                                                             "b",
                                                                "\xc3\xbc", "\xc3"}),
        done());

    const auto values = valuesOf(read().at(0).attributes.at(0));

    EXPECT_THAT(values, ElementsAre("a\xef\xbf\xbd"
                                    "b",
                            "\xc3\xbc", "\xef\xbf\xbd"));
}

TEST_F(ResultReading, TakesAValueOfSixteenMegabytes)
{
    const Bytes value(16U << 20U, 'v');
    server.expectSearch().answer(entry("cn=a").attr("data", value), done());

    EXPECT_EQ(valuesOf(read().at(0).attributes.at(0)).at(0), value);
}

TEST_F(ResultReading, ReadsADnWithReplacedBytesAndAnEmptyOne)
{
    server.expectSearch().answer(entry("cn=M\xc3\xbcller,dc=x"), entry("cn=\xff"), entry(""), done());

    EXPECT_THAT(dnsOf(read()), ElementsAre("cn=M\xc3\xbcller,dc=x", "cn=\xef\xbf\xbd", ""));
}

TEST_F(ResultReading, GivesAllAttributesInTheServersOrderAndSpelling)
{
    server.expectSearch().attributes({}).answer(
        entry("cn=a").attr("sN", "s").attr("cn", {"1", "2"}).attr("MAIL;x-a", "m"), done());

    EXPECT_THAT(namesOf(read().at(0)), ElementsAre("sN", "cn", "MAIL;x-a"));
}

TEST_F(ResultReading, GivesEachEntryTheNamesThatTheServerSentWithIt)
{
    server.expectSearch().answer(entry("cn=a").attr("cn", "1").attr("sn", "2").attr("mail", "3"),
        entry("cn=b").attr("mail", "1").attr("CN", "2").attr("sn", "3"), entry("cn=c"),
        entry("cn=d").attr("sn;binary", "1").attr("sn;range=0-0", "2").attr("sn", "3").attr("cn", "4"),
        entry("cn=e").attr("cn", "1").attr("sn", "2").attr("mail", "3"), done());

    const auto found = read();

    EXPECT_THAT(namesOf(found.at(0)), ElementsAre("cn", "sn", "mail"));
    EXPECT_THAT(namesOf(found.at(1)), ElementsAre("mail", "CN", "sn"));
    EXPECT_THAT(namesOf(found.at(2)), IsEmpty());
    EXPECT_THAT(namesOf(found.at(3)), ElementsAre("sn;binary", "sn;range=0-0", "sn", "cn"));
    EXPECT_THAT(namesOf(found.at(4)), ElementsAre("cn", "sn", "mail"));
    EXPECT_THAT(valuesOf(found.at(3).attributes.at(1)), ElementsAre("2"));
}

TEST_F(ResultReading, GivesAnyNumberOfNames)
{
    std::vector<std::string> names;
    Entry many("cn=a");
    for (int i = 0; i < 300; ++i) {
        names.push_back("x-" + std::to_string(i));
        many.attr(names.back(), names.back());
    }
    server.expectSearch().answer(many, entry("cn=b").attr("cn", "1"), many, done());

    const auto found = read();

    EXPECT_EQ(namesOf(found.at(0)), names);
    EXPECT_THAT(namesOf(found.at(1)), ElementsAre("cn"));
    EXPECT_EQ(namesOf(found.at(2)), names);
    EXPECT_THAT(valuesOf(found.at(2).attributes.back()), ElementsAre("x-299"));
}

TEST_F(ResultReading, FindsNoValuesUnderANameThatIsNotUtf8)
{
    const auto odd = entry("cn=a").attr("x-\xff", "1").attr("cn", "2");
    server.expectSearch().answer(odd, odd, done());

    for (const auto& found : read()) {
        EXPECT_THAT(namesOf(found), ElementsAre("x-\xef\xbf\xbd", "cn"));
        EXPECT_THAT(valuesOf(found.attributes.at(0)), IsEmpty());
        EXPECT_THAT(valuesOf(found.attributes.at(1)), ElementsAre("2"));
    }
}

/// Whether the two entries have the names of their attributes in the same memory.
bool shareTheirNames(const ldap::SearchEntry& one, const ldap::SearchEntry& other)
{
    return std::equal(one.attributes.begin(), one.attributes.end(), other.attributes.begin(),
        other.attributes.end(), [](const ldap::Attribute& a, const ldap::Attribute& b) {
            return a.name.constData() == b.name.constData();
        });
}

TEST_F(ResultReading, SharesTheNamesOfAttributesAmongTheEntries)
{
    const auto first = entry("cn=a").attr("cn", "1").attr("mail", "2");
    const auto last = entry("cn=b").attr("mail", "3").attr("cn", "4").attr("mail", "5");
    server.expectSearch().answer(first, first, last, done());
    server.expectSearch().answer(first, last, done());

    const auto all = read();
    const auto requested = read({"MAIL", "cn", "none"});

    EXPECT_TRUE(shareTheirNames(all.at(0), all.at(1)));
    EXPECT_EQ(all.at(2).attributes.at(0).name.constData(), all.at(0).attributes.at(1).name.constData());
    EXPECT_EQ(all.at(2).attributes.at(1).name.constData(), all.at(0).attributes.at(0).name.constData());
    EXPECT_TRUE(shareTheirNames(requested.at(0), requested.at(1)));
}

TEST_F(ResultReading, GivesRequestedAttributesInTheCallersOrderAndSpelling)
{
    server.expectSearch()
        .attributes({"Mail", "none", "CN"})
        .answer(entry("cn=a").attr("cn", "1").attr("mail", "m"), done());

    const auto found = read({"Mail", "none", "CN"}).at(0);

    EXPECT_THAT(namesOf(found), ElementsAre("Mail", "none", "CN"));
    EXPECT_THAT(valuesOf(found.attributes.at(0)), ElementsAre("m"));
    EXPECT_THAT(valuesOf(found.attributes.at(1)), IsEmpty());
    EXPECT_THAT(valuesOf(found.attributes.at(2)), ElementsAre("1"));
}

TEST_F(ResultReading, KeepsAnAttributeWithoutValues)
{
    server.expectSearch().answer(entry("cn=a").attr("none", std::vector<Bytes>()).attr("cn", "a"), done());

    const auto found = read().at(0);

    EXPECT_THAT(namesOf(found), ElementsAre("none", "cn"));
    EXPECT_THAT(valuesOf(found.attributes.at(0)), IsEmpty());
    EXPECT_THAT(valuesOf(found.attributes.at(1)), ElementsAre("a"));
}

TEST_F(ResultReading, GivesARepeatedAttributeTwiceWithTheFirstOnesValues)
{
    server.expectSearch().answer(entry("cn=a").attr("cn", "1").attr("cn", {"2", "3"}), done());

    const auto found = read().at(0);

    EXPECT_THAT(namesOf(found), ElementsAre("cn", "cn"));
    EXPECT_THAT(valuesOf(found.attributes.at(0)), ElementsAre("1"));
    EXPECT_THAT(valuesOf(found.attributes.at(1)), ElementsAre("1"));
}

TEST_F(ResultReading, GivesAnEntryWithoutAttributes)
{
    server.expectSearch().answer(entry("cn=a"), done());

    EXPECT_THAT(read().at(0).attributes, IsEmpty());
}

TEST_F(ResultReading, LeavesOutAnEntryWhoseDnCannotBeReadAndSaysSo)
{
    const LogCapture log;
    server.expectSearch().answer(
        entry("cn=a"), rawOperation(Answer::searchEntry, "no BER"), entry("cn=b"), done());

    EXPECT_THAT(dnsOf(read()), ElementsAre("cn=a", "cn=b"));
    EXPECT_THAT(
        log.texts(log::Level::debug), Contains(HasSubstr("Search entry handling error: ldap_get_dn")));
}

TEST_F(ResultReading, KeepsTheReadablePartOfATruncatedEntry)
{
    const Bytes readable = tlv(0x30, tlv(0x04, "cn") + tlv(0x31, tlv(0x04, "a")));
    const Bytes broken = "\x30\x7f";
    server.expectSearch().answer(
        rawOperation(Answer::searchEntry, tlv(0x04, "cn=a") + tlv(0x30, readable + broken)), entry("cn=b"),
        done());

    const auto found = read();

    EXPECT_THAT(dnsOf(found), ElementsAre("cn=a", "cn=b"));
    EXPECT_THAT(namesOf(found.at(0)), ElementsAre("cn"));
}

TEST_F(ResultReading, SkipsReferencesBeforeBetweenAndAfterTheEntries)
{
    const auto elsewhere = reference({"ldap://elsewhere/dc=y"});
    server.expectSearch().answer(elsewhere, entry("cn=a"), elsewhere, entry("cn=b"), elsewhere, done());

    EXPECT_THAT(dnsOf(read()), ElementsAre("cn=a", "cn=b"));
}

TEST_F(ResultReading, SkipsIntermediateResponses)
{
    server.expectSearch().answer(
        intermediate("1.2.3", "x"), entry("cn=a"), intermediate("1.2.3", "y"), done());

    EXPECT_THAT(dnsOf(read()), ElementsAre("cn=a"));
}

/// Searches page by page with the setting that has references logged.
class LoggedReferences : public ScriptedSessionTest
{
protected:
    LoggedReferences() { ldap::ini().logResponseReferences = true; }
    ~LoggedReferences() override { ldap::ini().logResponseReferences = false; }

    std::vector<std::string> referenceLines() const
    {
        std::vector<std::string> lines;
        for (const auto& text : log.texts()) {
            if (text.find("eference") != std::string::npos)
                lines.push_back(text);
        }
        return lines;
    }

    LogCapture log;
};

TEST_F(LoggedReferences, AreLoggedUrlByUrlAndNotFollowed)
{
    const ScriptedServer elsewhere;
    server.expectSearch().answer(
        reference({elsewhere.url(), "ldap://two/"}), entries(1, 1), reference({"ldap://three/"}), done());

    EXPECT_THAT(resultsOf(fetch(2)), ElementsAre(Result::ok));

    EXPECT_THAT(referenceLines(),
        ElementsAre("Logging references", "Not chasing reference received from server: " + elsewhere.url(),
            "Not chasing reference received from server: ldap://two/",
            "Not chasing reference received from server: ldap://three/"));
    EXPECT_EQ(elsewhere.connections(), 0U);
}

TEST_F(LoggedReferences, EndAtTheFirstBrokenOneWhileTheEntriesStay)
{
    server.expectSearch().answer(reference({"ldap://one/"}), rawOperation(Answer::searchReference, "no BER"),
        reference({"ldap://three/"}), entries(1, 2), done().page(""));

    const auto calls = fetch(2);

    EXPECT_THAT(dnsOf(calls.at(0).entries), ElementsAre("cn=1", "cn=2"));
    EXPECT_THAT(referenceLines(),
        ElementsAre("Logging references", "Not chasing reference received from server: ldap://one/",
            "Failed to parse LDAP reference entry: Decoding error"));
}

TEST_F(LoggedReferences, AreLoggedOfAPageThatFails)
{
    server.expectSearch().answer(reference({"ldap://one/"}), done(51));

    EXPECT_THAT(resultsOf(fetch(2)), ElementsAre(Result::connectError));

    EXPECT_THAT(referenceLines(),
        ElementsAre("Logging references", "Not chasing reference received from server: ldap://one/"));
}

TEST_F(ResultReading, LogsNoReferencesUnlessItIsAskedTo)
{
    const LogCapture log;
    server.expectSearch().answer(reference({"ldap://one/"}), done());

    fetch(2);

    EXPECT_THAT(log.texts(), Not(Contains(HasSubstr("eference"))));
}

TEST_F(ResultReading, ThrowsTheServersCodeAndReturnsNothingOfAPartialResult)
{
    server.expectSearch().answer(entries(1, 2), done(4).diagnostic("enough"));
    try {
        read();
        FAIL() << "a partial result was returned";
    } catch (const ldap::BaseError& error) {
        EXPECT_EQ(error.ldapCode, 4);
        EXPECT_EQ(utf8(error.context), "ldap_search_ext_s");
    }
}

} // namespace

} // namespace tavo::test
