#pragma once

#include <tavo_kit/export.h>

#include <QString>

#include <memory>
#include <vector>

namespace tavo::kit {

/// Fields of a program that an administrator can set in a small file.
///
///     struct Ini : tavo::kit::IniConfig
///     {
///         Ini() : IniConfig(QStringLiteral("my.ini")) { reload(); }
///         bool trace = regBoolParam(&trace, false, QStringLiteral("trace"), QStringLiteral("Traces it
///         all."));
///     };
///
/// Where the file is looked for: in `$TAVO_CONFIG_DIR`, then in `$XDG_CONFIG_HOME/tavo` (`~/.config/tavo`
/// when that variable is not set), then in `/etc/tavo`; the first file that exists is the one that counts.
/// Never in the working directory: a variable that is empty or holds no absolute path is ignored with a
/// warning.
///
/// What it holds: UTF-8 lines `key = value`. Empty lines, and lines and ends of lines that start with `;` or
/// `#` (after white space), are comments. A line `[section]` may group keys but has no meaning: a key means
/// the same in every section. A boolean is `true`, `yes`, `on` or `1`, `false`, `no`, `off` or `0`, in any
/// case; an integer is decimal, of 32 bits. Given twice, the last valid value counts.
///
/// A mistake never stops the program: a line that can't be read, a value of the wrong kind and an unknown key
/// are each logged as a warning that names file and line, and are skipped. No file at all is no mistake. The
/// file is only ever read.
///
/// Threads: for one thread at a time; nobody may read the fields during reload().
class TAVO_KIT_EXPORT IniConfig
{
public:
    /// @p fileName is a name without folders.
    explicit IniConfig(QString fileName);
    virtual ~IniConfig();
    IniConfig(const IniConfig&) = delete;
    IniConfig& operator=(const IniConfig&) = delete;

    /// Makes a field settable under a key. Returns the value to store in the field now, its default: only
    /// reload() writes to the field, which therefore has to live as long as this object is reloaded.
    /// @p description is for descriptions().
    bool regBoolParam(bool* field, bool defaultValue, const QString& key, const QString& description);
    int regIntParam(int* field, int defaultValue, const QString& key, const QString& description);

    /// Reads the file anew and sets every registered field: to the file's value, or to its default when the
    /// file has no valid one.
    void reload();

    /// A registered key, for a listing such as a program's help.
    struct Description
    {
        QString key;
        QString defaultValue; ///< as it would stand in the file
        QString text;
    };

    /// The registered keys in the order of registration.
    [[nodiscard]] std::vector<Description> descriptions() const;

    /// The file that the last reload() read; empty when there was none.
    [[nodiscard]] QString filePath() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace tavo::kit
