// Where a password must never be found.
#include "directory_test.h"
#include "support/sanitized.h"
#include "support/test_ca.h"
#include <ldap/tavo_ldap_ini.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <fcntl.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace tavo::ldap {
namespace {

using test::operator""_s;
using test::qt;
using test::Slapd;
using test::urlOf;
using ::testing::HasSubstr;
using ::testing::Not;

/// A password that stands nowhere in this program in its plain form, so that what is found is somebody's
/// copy.
class Canary
{
public:
    QString text() const
    {
        QString plain;
        // Growing would leave copies behind.
        plain.reserve(sizeof kHidden);
        for (const unsigned char hidden : kHidden) {
            plain.append(QChar(static_cast<char16_t>(hidden ^ kMask)));
        }
        return plain;
    }

    /// Whether the bytes contain the password in UTF-8 (one byte a letter) or UTF-16 (two).
    bool isIn(const std::vector<unsigned char>& bytes, std::size_t bytesPerLetter) const
    {
        const std::size_t length = sizeof kHidden * bytesPerLetter;
        for (std::size_t at = 0; at + length <= bytes.size(); ++at) {
            std::size_t letter = 0;
            while (letter < sizeof kHidden &&
                   isLetterAt(bytes, at + letter * bytesPerLetter, letter, bytesPerLetter)) {
                ++letter;
            }
            if (letter == sizeof kHidden) {
                return true;
            }
        }
        return false;
    }

    bool isIn(const std::string& text) const { return isIn({text.begin(), text.end()}, 1); }

private:
    bool isLetterAt(const std::vector<unsigned char>& bytes, std::size_t at, std::size_t letter,
        std::size_t bytesPerLetter) const
    {
        return (bytes[at] ^ kMask) == kHidden[letter] && (bytesPerLetter == 1 || bytes[at + 1] == 0);
    }

    static constexpr unsigned char kMask = 0x55;
    static constexpr unsigned char kHidden[] = {'c' ^ 0x55, 'A' ^ 0x55, 'n' ^ 0x55, '4' ^ 0x55, 'r' ^ 0x55,
        'Y' ^ 0x55, '-' ^ 0x55, 'o' ^ 0x55, 'f' ^ 0x55, '-' ^ 0x55, 't' ^ 0x55, 'h' ^ 0x55, 'E' ^ 0x55,
        '-' ^ 0x55, 'm' ^ 0x55, 'I' ^ 0x55, 'n' ^ 0x55, 'e' ^ 0x55};
};

/// What a core file of this process would hold: everything that can be written to.
[[maybe_unused]] bool isInMemory(const Canary& canary, std::size_t bytesPerLetter)
{
    std::ifstream maps("/proc/self/maps");
    const int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    bool found = false;
    for (std::string line; std::getline(maps, line);) {
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
        char mode[5] = {};
        if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %4s", &begin, &end, mode) != 3 ||
            mode[1] != 'w') {
            continue;
        }
        std::vector<unsigned char> bytes(end - begin);
        const auto read = pread(memory, bytes.data(), bytes.size(), static_cast<off_t>(begin));
        EXPECT_GE(read, 0);
        if (canary.isIn(bytes, bytesPerLetter)) {
            found = true;
        }
        // Or the next search would find what this one has read.
        explicit_bzero(bytes.data(), bytes.size());
    }
    close(memory);
    return found;
}

class SecretsTest : public ::testing::Test
{
protected:
    Settings settings() const
    {
        Settings made;
        made.uri = urlOf(m_slapd.url());
        made.adminDn = qt(m_slapd.rootDn());
        made.adminPassword = canary.text();
        return made;
    }

    Settings wrongSettings() const
    {
        Settings made = settings();
        made.adminDn = "cn=somebody,dc=example,dc=test"_s;
        return made;
    }

    /// With these, the creation of a manager must fail like that.
    void expectNotInError(const Settings& failing, int ldapCode) const
    {
        try {
            createManagerOrThrow(failing);
            ADD_FAILURE() << "nothing was thrown";
        } catch (const BaseError& error) {
            EXPECT_EQ(error.ldapCode, ldapCode);
            EXPECT_FALSE(canary.isIn(error.what()));
            EXPECT_FALSE(canary.isIn(error.message().toStdString()));
        }
    }

    void expectNotInLog(const test::LogCapture& log) const
    {
        for (const auto& message : log.messages()) {
            EXPECT_FALSE(canary.isIn(message.text)) << message.tag;
        }
    }

    const Canary canary{};

private:
    // What slapd stores of the canary.
    const Slapd m_slapd{{.rootPassword = "{SHA}bmzS6+aIOwqeBapr00kfWD9oMgA="}};
};

// A sanitizer keeps books of its own on what was in memory.
#if !TAVO_SANITIZED
TEST_F(SecretsTest, LeaveNoTraceInMemoryOnceTheBindHasReturned)
{
    Settings good = settings();
    Settings wrong = wrongSettings();
    ASSERT_TRUE(isInMemory(canary, 2)) << "the search finds nothing at all";

    EXPECT_THROW(createManagerOrThrow(std::move(wrong)), InvalidCredentialsError);
    const auto manager = createManagerOrThrow(std::move(good));

    EXPECT_FALSE(isInMemory(canary, 1));
    EXPECT_FALSE(isInMemory(canary, 2));
}
#endif

TEST_F(SecretsTest, AreNotWipedInTheCallersOwnSettings)
{
    const Settings kept = settings();
    createManagerOrThrow(kept);
    EXPECT_EQ(kept.adminPassword, canary.text());
}

TEST_F(SecretsTest, AppearInNoLogNoErrorAndNoCommandLine)
{
    const test::LogCapture log;
    createManagerOrThrow(settings());
    EXPECT_FALSE(testLdapConnection(wrongSettings()));
    expectNotInError(wrongSettings(), LDAP_INVALID_CREDENTIALS);
    EXPECT_TRUE(log.contains("******")) << "the settings were not logged at all";
    expectNotInLog(log);
    std::ifstream commandLine("/proc/self/cmdline");
    EXPECT_FALSE(canary.isIn({std::istreambuf_iterator<char>(commandLine), {}}));
}

TEST_F(SecretsTest, AppearInNoErrorAndNoLogOfAServerThatIsGoneOrNotTrusted)
{
    const test::ReservedPort nobody;
    Settings gone = settings();
    gone.uri = urlOf("ldap://127.0.0.1:" + std::to_string(nobody.number()));
    test::TestCa stranger;
    const test::ServerCertificate certificate = stranger.issue();
    const Slapd untrusted(
        {.tls = test::SlapdTls{stranger.certificate(), certificate.certificate, certificate.key}});
    // Over ldaps, where the handshake is the bind's: a TlsError, if the client library is on OpenSSL.
    Settings refused = settings();
    refused.uri = urlOf(untrusted.ldapsUrl());
    const test::LogCapture log;

    expectNotInError(gone, LDAP_SERVER_DOWN);
    expectNotInError(refused, LDAP_SERVER_DOWN);

    expectNotInLog(log);
}

TEST_F(SecretsTest, AppearInNoDebugOutputOfTheClientLibrary)
{
    ini().openldapDebugLevel = 0xffff;
    ::testing::internal::CaptureStderr();
    createManagerOrThrow(settings());
    const std::string output = ::testing::internal::GetCapturedStderr();
    EXPECT_THAT(output, HasSubstr("ldap_sasl_bind"));
    EXPECT_FALSE(canary.isIn(output));
    // How a packet is shown.
    EXPECT_THAT(output, Not(HasSubstr("63 41 6e 34")));
}

} // namespace
} // namespace tavo::ldap
