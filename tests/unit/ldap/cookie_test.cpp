#include "support/log_capture.h"
#include "support/qt_printers.h"
#include <ldap/error.h>
#include <ldap/private/page_cookie.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace tavo::ldap {
namespace {

using test::operator""_s;
using ::testing::ElementsAre;

/// A response's controls: copies of the given ones, in memory that the client library frees.
ControlsPtr controlsOf(std::vector<std::pair<std::string, std::string>> oidsAndValues)
{
    auto** controls =
        static_cast<LDAPControl**>(ber_memcalloc(oidsAndValues.size() + 1, sizeof(LDAPControl*)));
    for (std::size_t i = 0; i < oidsAndValues.size(); ++i) {
        auto& [oid, value] = oidsAndValues[i];
        berval bytes{value.size(), value.data()};
        ldap_control_create(oid.c_str(), 0, &bytes, /*dupval*/ 1, &controls[i]);
    }
    return {controls, &ldap_controls_free};
}

/// The value of a page control: SEQUENCE { INTEGER 0, OCTET STRING cookie }, for cookies below 100 bytes.
std::string pageValue(const std::string& cookie)
{
    const auto size = static_cast<char>(cookie.size());
    return std::string("\x30") + static_cast<char>(size + 5) + std::string("\x02\x01\x00\x04", 4) + size +
           cookie;
}

class CookieTest : public ::testing::Test
{
protected:
    CookieTest() { ldap_initialize(&m_ld, "ldap://127.0.0.1:1"); }
    ~CookieTest() override { ldap_destroy(m_ld); }

    LDAP* m_ld = nullptr;
};

TEST_F(CookieTest, IsEmptyAtFirst)
{
    const Cookie cookie(m_ld);
    EXPECT_TRUE(cookie.isEmpty());
    EXPECT_EQ(cookie.size(), 0);
}

TEST_F(CookieTest, TakesTheServersCookieWithItsNulBytes)
{
    Cookie cookie(m_ld);
    cookie.update(controlsOf({{LDAP_CONTROL_PAGEDRESULTS, pageValue(std::string("a\0b", 3))}}));
    EXPECT_FALSE(cookie.isEmpty());
    EXPECT_EQ(cookie.size(), 3);

    const ControlPtr next = cookie.createPageControl(10);
    const std::string sent(next->ldctl_value.bv_val, next->ldctl_value.bv_len);
    EXPECT_THAT(sent, ::testing::EndsWith(std::string("\x04\x03"
                                                      "a\0b",
                          5)));
}

TEST_F(CookieTest, TakesTheFirstOfSeveralPageControls)
{
    Cookie cookie(m_ld);
    cookie.update(controlsOf({{"1.2.3", "x"}, {LDAP_CONTROL_PAGEDRESULTS, pageValue("first")},
        {LDAP_CONTROL_PAGEDRESULTS, pageValue("2nd")}}));
    EXPECT_EQ(cookie.size(), 5);
}

TEST_F(CookieTest, BecomesEmptyWithTheServersEmptyCookie)
{
    Cookie cookie(m_ld);
    cookie.update(controlsOf({{LDAP_CONTROL_PAGEDRESULTS, pageValue("x")}}));
    cookie.update(controlsOf({{LDAP_CONTROL_PAGEDRESULTS, pageValue("")}}));
    EXPECT_TRUE(cookie.isEmpty());
    EXPECT_EQ(cookie.size(), 0);
}

TEST_F(CookieTest, BecomesEmptyWithoutAPageControlAndSaysSo)
{
    Cookie cookie(m_ld);
    cookie.update(controlsOf({{LDAP_CONTROL_PAGEDRESULTS, pageValue("x")}}));
    const test::LogCapture log;
    cookie.update(controlsOf({{"1.2.3", "x"}}));
    EXPECT_TRUE(cookie.isEmpty());
    cookie.update(ControlsPtr(nullptr, &ldap_controls_free));
    EXPECT_THAT(
        log.texts(log::Level::debug), ElementsAre("Page control not found", "Page control not found"));
}

TEST_F(CookieTest, BecomesEmptyWithAMalformedPageControl)
{
    Cookie cookie(m_ld);
    cookie.update(controlsOf({{LDAP_CONTROL_PAGEDRESULTS, pageValue("x")}}));
    try {
        cookie.update(controlsOf({{LDAP_CONTROL_PAGEDRESULTS, "nonsense"}}));
        FAIL() << "nothing thrown";
    } catch (const BaseError& error) {
        EXPECT_EQ(error.ldapCode, LDAP_DECODING_ERROR);
        EXPECT_EQ(error.context, "ldap_parse_pageresponse_control"_s);
        EXPECT_EQ(error.systemError, 0);
    }
    EXPECT_TRUE(cookie.isEmpty());
}

TEST_F(CookieTest, MarksEveryPageControlCritical)
{
    Cookie cookie(m_ld);
    for (const int pageSize : {1, 1000, 2147483647}) {
        const ControlPtr control = cookie.createPageControl(pageSize);
        EXPECT_STREQ(control->ldctl_oid, "1.2.840.113556.1.4.319");
        EXPECT_NE(control->ldctl_iscritical, 0);
    }
}

TEST_F(CookieTest, ReportsAControlThatCannotBeBuilt)
{
    Cookie cookie(m_ld);
    try {
        cookie.createPageControl(-1);
        FAIL() << "nothing thrown";
    } catch (const BaseError& error) {
        EXPECT_EQ(error.context, "ldap_create_page_control"_s);
        EXPECT_NE(error.ldapCode, 0);
    }
}

} // namespace
} // namespace tavo::ldap
