#include "support/assertion_capture.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"
#include <ldap/private/handle.h>
#include <ldap/utils.h>
#include <tavo_utils/formatter.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstring>

namespace tavo::ldap {
namespace {

using test::operator""_s;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

std::string tagOf(const char* type, const void* object)
{
    return utils::format(u"%1(0x%2)", type, QString::number(reinterpret_cast<quintptr>(object), 16))
        .toStdString();
}

TEST(BaseErrorTest, ComposesItsMessageOfContextLdapTextAndSystemText)
{
    const BaseError error(LDAP_SERVER_DOWN, "bind"_s, ENOTCONN);
    EXPECT_EQ(error.ldapCode, LDAP_SERVER_DOWN);
    EXPECT_EQ(error.context, "bind"_s);
    EXPECT_EQ(error.systemError, ENOTCONN);
    EXPECT_EQ(error.message().toStdString(),
        std::string("bind: Can't contact LDAP server (") + std::strerror(ENOTCONN) + ")");
    EXPECT_STREQ(error.what(), error.message().toUtf8().constData());
}

TEST(BaseErrorTest, LeavesOutWhatIsNotThere)
{
    EXPECT_EQ(BaseError(LDAP_BUSY, QString(), 0).message(), "Server is busy"_s);
    EXPECT_EQ(BaseError(LDAP_BUSY, "init"_s, 0).message(), "init: Server is busy"_s);
    EXPECT_EQ(BaseError(LDAP_BUSY, QString(), EINTR).message().toStdString(),
        std::string("Server is busy (") + std::strerror(EINTR) + ")");
}

TEST(BaseErrorTest, SaysTheSameByBothNamesWhenItsContextChanges)
{
    BaseError error(LDAP_BUSY, "init"_s, 0);
    EXPECT_STREQ(error.what(), "init: Server is busy");
    error.context = "bind"_s;
    EXPECT_STREQ(error.what(), "bind: Server is busy");
    EXPECT_STREQ(error.what(), error.message().toUtf8().constData());
}

TEST(BaseErrorTest, KeepsPercentSignsOfItsContext)
{
    EXPECT_EQ(BaseError(LDAP_BUSY, "100%1"_s, 0).message(), "100%1: Server is busy"_s);
}

TEST(BaseErrorTest, LogsItsMessageOnceAtDebugLevelUnderItsOwnTag)
{
    const test::LogCapture log;
    const BaseError error(LDAP_BUSY, "startTls"_s, 0);
    ASSERT_THAT(log.messages(), SizeIs(1));
    const auto message = log.messages().front();
    EXPECT_EQ(message.level, log::Level::debug);
    EXPECT_EQ(message.text, "startTls: Server is busy");
    EXPECT_EQ(message.tag, tagOf("tavo::ldap::BaseError", &error));
}

TEST(BaseErrorTest, LogsNothingWhenDebugIsNotAdmitted)
{
    const test::LogCapture log(log::Level::info);
    const BaseError error(LDAP_BUSY, QString(), 0);
    const TlsError tlsError(1, LDAP_BUSY, 0);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(BaseErrorTest, IsCaughtAsTheSupportLibrarysException)
{
    try {
        throw BaseError(LDAP_BUSY, QString(), 0);
    } catch (const utils::Exception& error) {
        EXPECT_STREQ(error.what(), "Server is busy");
    }
}

TEST(BaseErrorTest, GivesTheClientLibrarysTextOfACode)
{
    EXPECT_EQ(BaseError::ldapErrorString(LDAP_NO_SUCH_OBJECT), "No such object"_s);
    EXPECT_EQ(BaseError::ldapErrorString(LDAP_FILTER_ERROR), "Bad search filter"_s);
}

TEST(InvalidCredentialsErrorTest, NamesTheUserAndKeepsTheCode)
{
    const test::LogCapture log;
    const InvalidCredentialsError error("cn=admin,dc=example,dc=com"_s);
    EXPECT_EQ(error.message(), "Invalid credentials for user cn=admin,dc=example,dc=com"_s);
    EXPECT_STREQ(error.what(), "Invalid credentials for user cn=admin,dc=example,dc=com");
    EXPECT_EQ(error.user, "cn=admin,dc=example,dc=com"_s);
    EXPECT_EQ(error.ldapCode, 49);
    EXPECT_TRUE(error.context.isEmpty());
    EXPECT_EQ(error.systemError, 0);
    // Logged while only the base exists, so without the name.
    EXPECT_THAT(log.texts(log::Level::debug), ElementsAre("Invalid credentials"));
}

TEST(TlsErrorTest, LogsTheTextOfOpenSslAfterThatOfItsBase)
{
    const unsigned long sslError = ERR_PACK(ERR_LIB_SSL, 0, SSL_R_CERTIFICATE_VERIFY_FAILED);
    const test::LogCapture log;
    const TlsError error(sslError, LDAP_CONNECT_ERROR, 0);
    EXPECT_EQ(error.sslError, sslError);
    EXPECT_EQ(error.ldapCode, LDAP_CONNECT_ERROR);
    EXPECT_EQ(error.context, "TLS error with session"_s);
    EXPECT_EQ(error.message(), "TLS error with session: Connect error"_s);
    EXPECT_THAT(log.texts(log::Level::debug),
        ElementsAre("TLS error with session: Connect error",
            std::string("LDAP TLS/SSL error: ") + ERR_error_string(sslError, nullptr)));
    EXPECT_EQ(log.messages().back().tag, tagOf("tavo::ldap::TlsError", &error));
}

TEST(TlsErrorTest, LeavesItsTextInOpenSslsBufferWhateverTheLogLevel)
{
    const unsigned long sslError = ERR_PACK(ERR_LIB_SSL, 0, SSL_R_CERTIFICATE_VERIFY_FAILED);
    const char* const buffer = ERR_error_string(0, nullptr);
    char text[256];
    ERR_error_string_n(sslError, text, sizeof text);
    const test::LogCapture log(log::Level::info);
    const TlsError error(sslError, LDAP_CONNECT_ERROR, 0);
    EXPECT_STREQ(buffer, text);
}

TEST(ErrorTest, CreatingOneLeavesErrnoAlone)
{
    const test::LogCapture log;
    errno = EXDEV;
    const BaseError base(LDAP_BUSY, "bind"_s, EINTR);
    EXPECT_EQ(errno, EXDEV);
    const InvalidCredentialsError credentials("cn=a"_s);
    EXPECT_EQ(errno, EXDEV);
    const TlsError tls(1, LDAP_BUSY, 0);
    EXPECT_EQ(errno, EXDEV);
}

TEST(GetLdapErrorTest, ReadsTheCodeOfTheLastOperation)
{
    LDAP* ld = nullptr;
    ASSERT_EQ(ldap_initialize(&ld, "ldap://127.0.0.1:1"), LDAP_SUCCESS);
    EXPECT_EQ(getLdapError(ld), 0);
    int code = LDAP_BUSY;
    ldap_set_option(ld, LDAP_OPT_RESULT_CODE, &code);
    EXPECT_EQ(getLdapError(ld), LDAP_BUSY);
    ldap_destroy(ld);
}

} // namespace
} // namespace tavo::ldap
