// INI files as an administrator may leave them.

#include "invariant.h"
#include "process_setup.h"
#include <tavo_kit/ini_config.h>
#include <tavo_utils/log.h>

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

namespace tavo::fuzz {

namespace {

struct Values
{
    bool flag;
    bool trace;
    int level;
    int count;

    bool operator==(const Values&) const = default;
};

constexpr Values kDefaults{false, true, 0, -7};

struct Ini : kit::IniConfig
{
    Ini()
        : IniConfig(QStringLiteral("fuzz.ini"))
    {}

    Values values() const { return {flag, trace, level, count}; }

    bool flag = regBoolParam(&flag, kDefaults.flag, QStringLiteral("flag"), {});
    bool trace = regBoolParam(&trace, kDefaults.trace, QStringLiteral("trace"), {});
    int level = regIntParam(&level, kDefaults.level, QStringLiteral("level"), {});
    int count = regIntParam(&count, kDefaults.count, QStringLiteral("count"), {});
};

/// A directory of the fuzzer's own, which goes with it.
class ConfigDirectory
{
public:
    ConfigDirectory()
    {
        // In memory if possible: each input is written several times.
        const std::filesystem::path memory = "/dev/shm";
        const bool hasMemory = std::filesystem::is_directory(memory);
        const auto parent = hasMemory ? memory : std::filesystem::temp_directory_path();
        std::string path = (parent / "tavo-fuzz-ini-XXXXXX").string();
        require(mkdtemp(path.data()) != nullptr, "a directory can be made");
        m_path = path;
        setenv("TAVO_CONFIG_DIR", m_path.c_str(), 1);
    }
    ~ConfigDirectory() { std::filesystem::remove_all(m_path); }
    ConfigDirectory(const ConfigDirectory&) = delete;
    ConfigDirectory& operator=(const ConfigDirectory&) = delete;

    std::string file() const { return m_path / "fuzz.ini"; }

    void write(const QByteArray& content) const
    {
        std::ofstream(file(), std::ios::binary) << content.toStdString();
    }

private:
    std::filesystem::path m_path;
};

/// What a file does: the values, and the lines that were warned of.
struct Outcome
{
    Values values;
    std::vector<int> mistakes;

    bool operator==(const Outcome&) const = default;
};

class Reader
{
public:
    Reader()
    {
        log::setReducerConfig({.period = {}, .limit = 0});
        log::setSink([this](log::Level level, const QString&, const QString& text) { note(level, text); });
    }
    ~Reader()
    {
        log::setSink([](log::Level, const QString&, const QString&) {});
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    Outcome read(const QByteArray& content)
    {
        m_directory.write(content);
        m_mistakes.clear();
        m_ini.reload();
        require(m_ini.filePath().toStdString() == m_directory.file(), "the file is found");
        return {m_ini.values(), m_mistakes};
    }

private:
    /// Of a warning, `FILE:LINE: what is wrong`.
    void note(log::Level level, const QString& text)
    {
        require(level == log::Level::warning, "nothing but mistakes is said");
        const QString place = QString::fromStdString(m_directory.file()) + QLatin1Char(':');
        require(text.startsWith(place), "a mistake is told with its file");
        bool isNumber = false;
        m_mistakes.push_back(text.mid(place.size()).section(QLatin1Char(':'), 0, 0).toInt(&isNumber));
        require(isNumber, "a mistake is told with its line");
    }

    ConfigDirectory m_directory;
    std::vector<int> m_mistakes;
    Ini m_ini;
};

void check(Reader& reader, const QByteArray& content)
{
    const Outcome outcome = reader.read(content);
    require(reader.read(content) == outcome, "the same file gives the same values");

    const auto lines = content.count('\n') + 1;
    int last = 0;
    for (const int line : outcome.mistakes) {
        require(line > last && line <= lines, "each mistake is on a line of its own, in their order");
        last = line;
    }
    if (!content.contains('=')) {
        require(outcome.values == kDefaults, "without a value there are defaults");
    }
}

void checkChanged(Reader& reader, const QByteArray& content)
{
    const Outcome outcome = reader.read(content);

    const QByteArray valid = "\nflag = yes\ntrace=OFF ; why\n[x]\n level\t=\t42 \ncount = -2147483648";
    const Outcome more = reader.read(content + valid);
    require(more.values == Values{true, false, 42, -2147483647 - 1}, "the last valid value counts");
    require(more.mistakes == outcome.mistakes, "valid lines are no mistakes");

    const QByteArray invalid = "\nflag = maybe\nlevel = 2147483648\ncount = 0x1\nno such = 1\ntrace";
    const Outcome worse = reader.read(content + invalid);
    require(worse.values == outcome.values, "an invalid line changes nothing");
    require(worse.mistakes.size() == outcome.mistakes.size() + 5, "each invalid line is a mistake");

    const Outcome later = reader.read("# a comment\n" + content);
    require(later.values == outcome.values, "a comment changes nothing");

    const Outcome none = reader.read(";" + QByteArray(content).replace("\n", "\n#"));
    require(none.values == kDefaults && none.mistakes.empty(), "comments mean nothing");
}

} // namespace

} // namespace tavo::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    tavo::fuzz::setUpProcess();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static tavo::fuzz::Reader reader;
    const QByteArray content(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    tavo::fuzz::check(reader, content);
    tavo::fuzz::checkChanged(reader, content);
    return 0;
}
