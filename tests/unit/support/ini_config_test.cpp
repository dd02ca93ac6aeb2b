#include "support/log_capture.h"
#include <tavo_kit/ini_config.h>

#include <gmock/gmock.h>

#include <QtCore/QByteArray>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <limits>
#include <map>
#include <utility>

namespace {

// Counts down with each read of this process; the one that makes it 0 fails for this reason.
std::atomic<int> readsLeft{0};
int reasonToFail = EIO;

} // namespace

// Stands before the C library's for the libraries, too.
extern "C" [[gnu::visibility("default")]] ssize_t read(int descriptor, void* buffer, std::size_t size)
{
    if (--readsLeft == 0) {
        errno = reasonToFail;
        return -1;
    }
    return syscall(SYS_read, descriptor, buffer, size);
}

namespace tavo::kit {
namespace {

using test::LogCapture;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const QString fileName = QStringLiteral("tavo_ini_config_test.ini");

struct Ini : IniConfig
{
    Ini()
        : IniConfig(fileName)
    {
        reload();
    }

    bool trace = regBoolParam(&trace, false, QStringLiteral("trace"), QStringLiteral("Traces it all."));
    bool careful = regBoolParam(&careful, true, QStringLiteral("careful"), QStringLiteral("Looks twice."));
    int depth = regIntParam(&depth, 7, QStringLiteral("depth"), QStringLiteral("How deep to look"));
};

// Points every variable that is looked at into a folder of its own, and puts them back.
class IniConfigTest : public testing::Test
{
protected:
    IniConfigTest()
    {
        for (const char* const name : {"TAVO_CONFIG_DIR", "XDG_CONFIG_HOME", "HOME"}) {
            m_saved[name] = {qEnvironmentVariableIsSet(name), qgetenv(name)};
            qunsetenv(name);
        }
        qputenv("TAVO_CONFIG_DIR", own().toUtf8());
        QDir().mkpath(own());
    }
    ~IniConfigTest() override
    {
        for (const auto& [name, value] : m_saved) {
            qunsetenv(name);
            if (value.first)
                qputenv(name, value.second);
        }
    }
    IniConfigTest(const IniConfigTest&) = delete;
    IniConfigTest& operator=(const IniConfigTest&) = delete;

    QString path(const char* name) const { return m_folder.filePath(QString::fromUtf8(name)); }
    QString own() const { return path("own"); }

    static QString write(const QString& folder, const QByteArray& content)
    {
        QDir().mkpath(folder);
        QFile file(QDir(folder).filePath(fileName));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        EXPECT_EQ(file.write(content), content.size());
        return file.fileName();
    }

    // The texts of the warnings without the path that each begins with.
    static std::vector<std::string> mistakes(const LogCapture& log, const Ini& ini)
    {
        std::vector<std::string> found;
        for (const std::string& text : log.texts(log::Level::warning)) {
            const std::string start = ini.filePath().toStdString() + ":";
            EXPECT_EQ(text.substr(0, start.size()), start);
            found.push_back(text.substr(std::min(start.size(), text.size())));
        }
        return found;
    }

private:
    QTemporaryDir m_folder;
    std::map<const char*, std::pair<bool, QByteArray>> m_saved;
};

TEST_F(IniConfigTest, HoldsTheDefaultsWithoutAFileAndIsSilentAboutIt)
{
    const LogCapture log;
    const Ini ini;
    EXPECT_FALSE(ini.trace);
    EXPECT_TRUE(ini.careful);
    EXPECT_EQ(ini.depth, 7);
    EXPECT_TRUE(ini.filePath().isEmpty());
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(IniConfigTest, RegistrationReturnsTheDefault)
{
    write(own(), "flag = true\nnumber = 5\n");
    IniConfig config(fileName);
    bool flag = false;
    int number = 1;
    EXPECT_TRUE(config.regBoolParam(&flag, true, QStringLiteral("flag"), {}));
    EXPECT_EQ(config.regIntParam(&number, 42, QStringLiteral("number"), {}), 42);
    EXPECT_FALSE(flag) << "only reload() writes";
    config.reload();
    EXPECT_TRUE(flag);
    EXPECT_EQ(number, 5);
}

TEST_F(IniConfigTest, ReadsTheFile)
{
    const QString file = write(own(), "trace = true\ncareful=off\n  depth  =  -12  \n");
    const LogCapture log;
    const Ini ini;
    EXPECT_TRUE(ini.trace);
    EXPECT_FALSE(ini.careful);
    EXPECT_EQ(ini.depth, -12);
    EXPECT_EQ(ini.filePath(), file);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(IniConfigTest, TakesEveryFormOfABoolean)
{
    const std::map<QByteArray, bool> forms{{"true", true}, {"YES", true}, {"On", true}, {"1", true},
        {"false", false}, {"no", false}, {"OFF", false}, {"0", false}};
    for (const auto& [text, value] : forms) {
        write(own(), "trace = " + text + "\ncareful = " + text);
        const LogCapture log;
        const Ini ini;
        EXPECT_EQ(ini.trace, value) << text.toStdString();
        EXPECT_EQ(ini.careful, value) << text.toStdString();
        EXPECT_THAT(log.texts(), IsEmpty());
    }
}

TEST_F(IniConfigTest, IgnoresCommentsSectionsAndHowLinesEnd)
{
    write(own(), "\xEF\xBB\xBF; by the administrator\r\n\r\n[tavo]\r\n# more\r\n"
                 "trace = true ; for now\r\n[ other ] # it's grouping only\r\ndepth = 3 # deep enough");
    const LogCapture log;
    const Ini ini;
    EXPECT_TRUE(ini.trace);
    EXPECT_EQ(ini.depth, 3);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(IniConfigTest, TakesTheKeyOfTheFirstLineBehindAByteOrderMark)
{
    write(own(), "\xEF\xBB\xBFtrace = true\n");
    EXPECT_TRUE(Ini().trace);
}

TEST_F(IniConfigTest, ReportsEveryMistakeByLineAndReadsOn)
{
    write(own(), "nonsense\n= 5\ntrace = maybe\ndepth = 1.5\ndept = 4\n[broken\n\ncareful = no\n");
    const LogCapture log;
    const Ini ini;
    EXPECT_THAT(
        mistakes(log, ini), ElementsAre("1: expected \"key = value\", found [nonsense]",
                                "2: expected \"key = value\", found [= 5]",
                                "3: the value of [trace] must be a boolean, found [maybe]",
                                "4: the value of [depth] must be an integer, found [1.5]",
                                "5: unknown key [dept]", "6: expected \"key = value\", found [[broken]"));
    EXPECT_FALSE(ini.trace);
    EXPECT_EQ(ini.depth, 7);
    EXPECT_FALSE(ini.careful);
}

TEST_F(IniConfigTest, NeedsABlankBeforeACommentThatEndsALine)
{
    write(own(), "depth = 3;4\ndepth = 5#6\ndepth = 8 ;9\n");
    const LogCapture log;
    const Ini ini;
    EXPECT_THAT(mistakes(log, ini), ElementsAre("1: the value of [depth] must be an integer, found [3;4]",
                                        "2: the value of [depth] must be an integer, found [5#6]"));
    EXPECT_EQ(ini.depth, 8);
}

TEST_F(IniConfigTest, RejectsIntegersThatDoNotFit)
{
    write(own(), "depth = 2147483648\n");
    const LogCapture log;
    EXPECT_EQ(Ini().depth, 7);
    EXPECT_THAT(log.texts(), ElementsAre(HasSubstr(":1: the value of [depth] must be an integer")));
    write(own(), "depth = -2147483648\n");
    EXPECT_EQ(Ini().depth, std::numeric_limits<int>::min());
}

TEST_F(IniConfigTest, UsesTheLastValidValue)
{
    write(own(), "depth = 1\ndepth = 2\ndepth = many\ntrace =\n");
    const LogCapture log;
    const Ini ini;
    EXPECT_EQ(ini.depth, 2);
    EXPECT_THAT(mistakes(log, ini), ElementsAre("3: the value of [depth] must be an integer, found [many]",
                                        "4: the value of [trace] must be a boolean, found []"));
}

TEST_F(IniConfigTest, ResetsOnReloadWhatTheFileNoLongerHolds)
{
    write(own(), "trace = true\ndepth = 3\n");
    Ini ini;
    write(own(), "depth = 4\n");
    ini.reload();
    EXPECT_FALSE(ini.trace);
    EXPECT_EQ(ini.depth, 4);
    EXPECT_TRUE(QFile::remove(ini.filePath()));
    ini.reload();
    EXPECT_EQ(ini.depth, 7);
    EXPECT_TRUE(ini.filePath().isEmpty());
}

TEST_F(IniConfigTest, TakesTheFirstFileThatExists)
{
    qputenv("XDG_CONFIG_HOME", path("xdg").toUtf8());
    qputenv("HOME", path("home").toUtf8());
    write(path("home/.config/tavo"), "depth = 3\n");
    EXPECT_EQ(Ini().depth, 7) << "~/.config is not looked at when XDG_CONFIG_HOME is set";
    write(path("xdg/tavo"), "depth = 2\n");
    EXPECT_EQ(Ini().depth, 2);
    write(own(), "");
    EXPECT_EQ(Ini().depth, 7) << "an empty file counts as well";
    write(own(), "depth = 1\n");
    EXPECT_EQ(Ini().depth, 1);
}

TEST_F(IniConfigTest, LooksBelowTheHomeFolderWithoutOtherVariables)
{
    qunsetenv("TAVO_CONFIG_DIR");
    qputenv("HOME", path("home").toUtf8());
    write(path("home/.config/tavo"), "depth = 3\n");
    const LogCapture log;
    EXPECT_EQ(Ini().depth, 3);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(IniConfigTest, NeverReadsFromTheWorkingDirectory)
{
    const QString before = QDir::currentPath();
    write(path("work"), "depth = 9\n");
    write(path("work/tavo"), "depth = 9\n");
    write(path("work/.config/tavo"), "depth = 9\n");
    ASSERT_TRUE(QDir::setCurrent(path("work")));
    for (const char* const value : {"", ".", "tavo"}) {
        qputenv("TAVO_CONFIG_DIR", value);
        qputenv("XDG_CONFIG_HOME", value);
        qputenv("HOME", value);
        const LogCapture log;
        const Ini ini;
        EXPECT_EQ(ini.depth, 7) << '[' << value << ']';
        EXPECT_THAT(log.texts(log::Level::warning),
            ElementsAre(HasSubstr("Ignoring TAVO_CONFIG_DIR"), HasSubstr("Ignoring XDG_CONFIG_HOME"),
                HasSubstr("Ignoring HOME")));
    }
    QDir::setCurrent(before);
}

TEST_F(IniConfigTest, ReportsAFileThatCannotBeRead)
{
    QDir().mkpath(own() + u'/' + fileName);
    const LogCapture log;
    const Ini ini;
    EXPECT_EQ(ini.depth, 7);
    EXPECT_THAT(log.texts(log::Level::warning),
        ElementsAre(HasSubstr("Cannot read " + ini.filePath().toStdString())));
}

void bindSocket(const QString& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path);
    ASSERT_LT(static_cast<std::size_t>(name.size()), sizeof address.sun_path);
    std::copy(name.begin(), name.end(), address.sun_path);
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(descriptor);
}

TEST_F(IniConfigTest, SkipsWhatIsNoRegularFileAndSaysWhatItIs)
{
    const QString file = QDir(own()).filePath(fileName);
    const std::string start = "Cannot read " + file.toStdString() + ": it is ";
    const std::string end = ", not a regular file";
    const auto warnings = [] {
        const LogCapture log;
        EXPECT_EQ(Ini().depth, 7);
        return log.texts();
    };

    ASSERT_EQ(mkfifo(QFile::encodeName(file).constData(), S_IRUSR | S_IWUSR), 0);
    EXPECT_THAT(warnings(), ElementsAre(start + "a FIFO" + end));
    ASSERT_TRUE(QFile::remove(file));

    bindSocket(file);
    EXPECT_THAT(warnings(), ElementsAre(start + "a socket" + end));
    ASSERT_TRUE(QFile::remove(file));

    ASSERT_TRUE(QFile::link(QStringLiteral("/dev/zero"), file));
    EXPECT_THAT(warnings(), ElementsAre(start + "a device" + end));
    ASSERT_TRUE(QFile::remove(file));

    ASSERT_TRUE(QDir().mkpath(file));
    EXPECT_THAT(warnings(), ElementsAre(start + "a directory" + end));
}

TEST_F(IniConfigTest, ReportsAReadErrorWithTheSystemsText)
{
    const QString file = QDir(own()).filePath(fileName);
    ASSERT_TRUE(QFile::link(QStringLiteral("/proc/self/mem"), file)); // nothing is mapped at address 0
    const LogCapture log;
    EXPECT_EQ(Ini().depth, 7);
    EXPECT_THAT(log.texts(), ElementsAre("Cannot read " + file.toStdString() + ": Input/output error"));
}

TEST_F(IniConfigTest, UsesNothingOfAFileThatCannotBeReadToItsEnd)
{
    const QString file = write(own(), "depth = 3\nnonsense\n");
    const LogCapture log;
    readsLeft = 2; // the second finds the end
    const Ini ini;
    EXPECT_EQ(ini.depth, 7);
    EXPECT_THAT(log.texts(), ElementsAre("Cannot read " + file.toStdString() + ": Input/output error"));
}

TEST_F(IniConfigTest, ReadsOnAfterAnInterruption)
{
    write(own(), "depth = 3\n");
    const LogCapture log;
    reasonToFail = EINTR;
    readsLeft = 1;
    EXPECT_EQ(Ini().depth, 3);
    EXPECT_THAT(log.texts(), IsEmpty());
    reasonToFail = EIO;
}

TEST_F(IniConfigTest, SkipsAFileLargerThanOneMebibyte)
{
    const QByteArray content = "depth = 3\n;";
    const qsizetype limit = 1024 * 1024;
    const QString file = write(own(), content + QByteArray(limit - content.size(), 'x'));
    const LogCapture log;
    EXPECT_EQ(Ini().depth, 3);
    EXPECT_THAT(log.texts(), IsEmpty());
    write(own(), content + QByteArray(limit - content.size() + 1, 'x'));
    EXPECT_EQ(Ini().depth, 7);
    EXPECT_THAT(
        log.texts(), ElementsAre("Cannot read " + file.toStdString() + ": it is larger than 1048576 bytes"));
}

TEST_F(IniConfigTest, FollowsALinkToARegularFile)
{
    const QString target = write(path("elsewhere"), "depth = 3\n");
    ASSERT_TRUE(QFile::link(target, QDir(own()).filePath(fileName)));
    EXPECT_EQ(Ini().depth, 3);
}

TEST_F(IniConfigTest, ListsItsKeysForPeople)
{
    std::vector<std::string> lines;
    for (const auto& [key, defaultValue, text] : Ini().descriptions())
        lines.push_back((key + u'=' + defaultValue + u' ' + text).toStdString());
    EXPECT_THAT(lines,
        ElementsAre("trace=false Traces it all.", "careful=true Looks twice.", "depth=7 How deep to look"));
}

} // namespace
} // namespace tavo::kit
