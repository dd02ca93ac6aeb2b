#include <tavo_utils/system_error.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

namespace tavo::utils {
namespace {

TEST(SystemError, ReadsAndSetsErrno)
{
    errno = ENOENT;
    EXPECT_EQ(SystemError::getLastOSErrorCode(), ENOENT);
    SystemError::setLastErrorCode(EACCES);
    EXPECT_EQ(errno, EACCES);
}

TEST(SystemError, BelongsToItsThread)
{
    SystemError::setLastErrorCode(EACCES);
    std::jthread([] { SystemError::setLastErrorCode(ENOENT); }).join();
    EXPECT_EQ(SystemError::getLastOSErrorCode(), EACCES);
}

TEST(SystemError, DescribesACode)
{
    EXPECT_EQ(SystemError::toString(ENOENT), QStringLiteral("No such file or directory"));
    EXPECT_NE(SystemError::toString(EACCES), SystemError::toString(ENOENT));
}

TEST(SystemError, NamesTheNumberOfAnUnknownCodeAndLeavesErrnoAlone)
{
    errno = EACCES;
    const QString text = SystemError::toString(123456);
    const int codeAfterwards = errno;
    EXPECT_TRUE(text.contains(QStringLiteral("123456"))) << text.toStdString();
    EXPECT_EQ(codeAfterwards, EACCES);
}

TEST(SystemErrorKeeper, RestoresTheCodeItFound)
{
    errno = ENOENT;
    {
        const SystemErrorKeeper keeper;
        errno = EIO;
    }
    EXPECT_EQ(errno, ENOENT);
}

} // namespace
} // namespace tavo::utils
