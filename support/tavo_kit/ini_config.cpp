#include "tavo_kit/ini_config.h"

#include <tavo_kit/small_file.h>
#include <tavo_utils/log.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <algorithm>
#include <functional>
#include <optional>
#include <utility>

namespace tavo::kit {

namespace {

/// Far more than people write; a larger file is a mistake.
constexpr qsizetype maxFileSize = 1'048'576;

std::optional<bool> parseBool(const QString& text)
{
    const QString lower = text.toLower();
    if (QStringList{QStringLiteral("true"), QStringLiteral("yes"), QStringLiteral("on"), QStringLiteral("1")}
            .contains(lower)) {
        return true;
    }
    if (QStringList{QStringLiteral("false"), QStringLiteral("no"), QStringLiteral("off"), QStringLiteral("0")}
            .contains(lower)) {
        return false;
    }
    return std::nullopt;
}

std::optional<int> parseInt(const QString& text)
{
    bool ok = false;
    const int value = text.toInt(&ok);
    return ok ? std::optional(value) : std::nullopt;
}

/// A comment begins at a `;` or `#` that starts the line or follows white space.
QString withoutComment(const QString& line)
{
    for (qsizetype i = 0; i < line.size(); ++i) {
        const bool isMark = line[i] == u';' || line[i] == u'#';
        if (isMark && (i == 0 || line[i - 1].isSpace())) {
            return line.left(i).trimmed();
        }
    }
    return line.trimmed();
}

} // namespace

class IniConfig::Impl
{
public:
    explicit Impl(QString fileName)
        : m_fileName(std::move(fileName))
    {}

    template <class T>
    T add(T* field, T defaultValue, std::optional<T> (*parse)(const QString&), const char* kind,
        Description description)
    {
        const auto assign = [field, parse](const QString& text) {
            const std::optional<T> value = parse(text);
            *field = value.value_or(*field);
            return value.has_value();
        };
        const auto reset = [field, defaultValue] { *field = defaultValue; };
        m_parameters.push_back({std::move(description), kind, assign, reset});
        return defaultValue;
    }

    void reload()
    {
        for (const Parameter& parameter : m_parameters) {
            parameter.reset();
        }
        m_filePath = find();
        if (!m_filePath.isEmpty()) {
            read();
        }
    }

    std::vector<Description> descriptions() const
    {
        std::vector<Description> all;
        for (const Parameter& parameter : m_parameters) {
            all.push_back(parameter.description);
        }
        return all;
    }

    QString filePath() const { return m_filePath; }

private:
    struct Parameter
    {
        Description description;
        const char* kind;
        std::function<bool(const QString&)> assign;
        std::function<void()> reset;
    };

    QString find() const
    {
        for (const QString& folder : folders()) {
            QString path = QDir(folder).filePath(m_fileName);
            if (QFileInfo::exists(path)) {
                return path;
            }
        }
        return {};
    }

    QStringList folders() const
    {
        QStringList all;
        if (const QString own = folderFrom("TAVO_CONFIG_DIR"); !own.isEmpty()) {
            all << own;
        }
        if (const QString user = folderFrom("XDG_CONFIG_HOME"); !user.isEmpty()) {
            all << QDir(user).filePath(QStringLiteral("tavo"));
        } else if (const QString home = folderFrom("HOME"); !home.isEmpty()) {
            all << QDir(home).filePath(QStringLiteral(".config/tavo"));
        }
        return all << QStringLiteral("/etc/tavo");
    }

    /// Refuses a relative path: it would mean the working directory, where a stranger may have put a file.
    QString folderFrom(const char* variable) const
    {
        QString value = QFile::decodeName(qgetenv(variable));
        if (QDir::isAbsolutePath(value)) {
            return value;
        }
        if (qEnvironmentVariableIsSet(variable)) {
            TAVO_LOG_WARNING(log::tag(*this),
                u"Ignoring %1 while looking for %2: [%3] is not an absolute path", variable, m_fileName,
                value);
        }
        return {};
    }

    void read()
    {
        const SmallFile file = readSmallFile(m_filePath, maxFileSize);
        if (!file.failure.isNull()) {
            TAVO_LOG_WARNING(log::tag(*this), u"Cannot read %1: %2", m_filePath, file.failure);
            return;
        }
        int number = 0;
        for (const QByteArray& line : file.content.split('\n')) {
            readLine(++number, withoutComment(QString::fromUtf8(line)));
        }
    }

    void readLine(int number, const QString& line)
    {
        const bool isSection = line.startsWith(u'[') && line.endsWith(u']');
        if (line.isEmpty() || isSection) {
            return;
        }
        const qsizetype equals = line.indexOf(u'=');
        const QString key = line.left(equals).trimmed();
        if (equals < 0 || key.isEmpty()) {
            return report(number, utils::format(u"expected \"key = value\", found [%1]", line));
        }
        assign(number, key, line.mid(equals + 1).trimmed());
    }

    void assign(int number, const QString& key, const QString& value)
    {
        const auto parameter = std::find_if(m_parameters.begin(), m_parameters.end(),
            [&](const Parameter& candidate) { return candidate.description.key == key; });
        if (parameter == m_parameters.end()) {
            return report(number, utils::format(u"unknown key [%1]", key));
        }
        if (!parameter->assign(value)) {
            report(number,
                utils::format(u"the value of [%1] must be %2, found [%3]", key, parameter->kind, value));
        }
    }

    void report(int number, const QString& mistake) const
    {
        TAVO_LOG_WARNING(log::tag(*this), u"%1:%2: %3", m_filePath, number, mistake);
    }

    QString m_fileName;
    QString m_filePath;
    std::vector<Parameter> m_parameters;
};

IniConfig::IniConfig(QString fileName)
    : m_impl(std::make_unique<Impl>(std::move(fileName)))
{}

IniConfig::~IniConfig() = default;

bool IniConfig::regBoolParam(bool* field, bool defaultValue, const QString& key, const QString& description)
{
    return m_impl->add(
        field, defaultValue, &parseBool, "a boolean", {key, utils::toText(defaultValue), description});
}

int IniConfig::regIntParam(int* field, int defaultValue, const QString& key, const QString& description)
{
    return m_impl->add(
        field, defaultValue, &parseInt, "an integer", {key, utils::toText(defaultValue), description});
}

void IniConfig::reload() { m_impl->reload(); }

std::vector<IniConfig::Description> IniConfig::descriptions() const { return m_impl->descriptions(); }

QString IniConfig::filePath() const { return m_impl->filePath(); }

} // namespace tavo::kit
