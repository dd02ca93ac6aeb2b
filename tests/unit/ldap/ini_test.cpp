#include "support/assertion_capture.h"
#include "support/qt_printers.h"
#include "support/temporary_directory.h"
#include <ldap/tavo_ldap_ini.h>
#include <ldap/utils.h>

#include <gtest/gtest.h>
#include <ldap.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace tavo::ldap {
namespace {

using test::operator""_s;

class IniTest : public ::testing::Test
{
protected:
    IniTest() { setenv("TAVO_CONFIG_DIR", m_directory.path().c_str(), 1); }
    ~IniTest() override { unsetenv("TAVO_CONFIG_DIR"); }

    void write(const char* text) { std::ofstream(m_directory.path() / "tavo_ldap.ini") << text; }

    test::TemporaryDirectory m_directory;
};

TEST_F(IniTest, HasEverythingOffWithoutAFile)
{
    const Ini ini;
    EXPECT_FALSE(ini.logResponseReferences);
    EXPECT_EQ(ini.openldapDebugLevel, 0);
}

TEST_F(IniTest, ReadsBothSwitches)
{
    write("logResponseReferences = true\nopenldapDebugLevel = -1\n");
    const Ini ini;
    EXPECT_TRUE(ini.logResponseReferences);
    EXPECT_EQ(ini.openldapDebugLevel, -1);
}

TEST_F(IniTest, DescribesItsTwoSwitches)
{
    const auto keys = Ini().descriptions();
    ASSERT_EQ(keys.size(), 2U);
    EXPECT_EQ(keys[0].key, "logResponseReferences"_s);
    EXPECT_EQ(keys[0].text, "Enables debug output of LDAP references in search."_s);
    EXPECT_EQ(keys[1].key, "openldapDebugLevel"_s);
    EXPECT_EQ(keys[1].text, "Enables debug output to stdout of openldap library"_s);
}

TEST_F(IniTest, IsReadOncePerProcess)
{
    write("openldapDebugLevel = 0\n");
    Ini& first = ini();
    write("openldapDebugLevel = 7\n");
    EXPECT_EQ(&ini(), &first);
    EXPECT_EQ(ini().openldapDebugLevel, 0);
}

/// Ends the process with 0 if the instance can still be read when all that was made after this call is gone.
void readAtExit()
{
    std::atexit([] {
        const std::filesystem::path directory = std::getenv("TAVO_CONFIG_DIR");
        std::ofstream(directory / "tavo_ldap.ini") << "openldapDebugLevel = 7\n";
        ini().reload();
        std::filesystem::remove_all(directory);
        _exit(ini().openldapDebugLevel == 7 ? 0 : 1);
    });
    ini();
    std::exit(2);
}

class IniDeathTest : public IniTest
{};

TEST_F(IniDeathTest, IsThereUntilTheVeryEndOfTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(readAtExit(), ::testing::ExitedWithCode(0), "");
}

TEST(EnableOpenldapDebugOutputTest, SetsTheClientLibrarysLevel)
{
    const auto level = [] {
        int value = -1;
        ldap_get_option(nullptr, LDAP_OPT_DEBUG_LEVEL, &value);
        return value;
    };
    enableOpenldapDebugOutput(2048);
    EXPECT_EQ(level(), 2048);
    enableOpenldapDebugOutput(0);
    EXPECT_EQ(level(), 0);
}

} // namespace
} // namespace tavo::ldap
