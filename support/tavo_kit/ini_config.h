#pragma once

#include <tavo_kit/export.h>

#include <QString>

#include <memory>
#include <vector>

namespace tavo::kit {

/// Settings of a program that an administrator can change in a small file.
///
///     struct Ini : tavo::kit::IniConfig
///     {
///         Ini()
///             : IniConfig(QStringLiteral("my.ini"))
///         {
///             reload();
///         }
///         bool trace =
///             regBoolParam(&trace, false, QStringLiteral("trace"), QStringLiteral("Traces every call."));
///     };
///
/// The file is looked for in `$TAVO_CONFIG_DIR`, then in `$XDG_CONFIG_HOME/tavo` (`~/.config/tavo` when that
/// variable is not set), then in `/etc/tavo`; the first one that exists is read. The working directory is
/// never searched: a variable that is empty or holds a relative path is ignored with a warning.
///
/// The file holds UTF-8 lines `key = value`. A `;` or `#` at the start of a line or after white space begins
/// a comment; empty lines are ignored. A line `[section]` may group keys but has no meaning: a key means the
/// same in every section. A boolean is `true`, `yes`, `on`, `1`, `false`, `no`, `off` or `0`, in any case; an
/// integer is decimal and fits 32 bits. Of several valid values for a key the last one counts.
///
/// A mistake in the file never stops the program: an unreadable line, a value of the wrong kind or an unknown
/// key is skipped with a warning that names file and line. A file that can't be read to its end, is larger
/// than 1 MiB or is not a regular file (a FIFO, a device) is skipped as a whole, with a warning that names it
/// and the reason. A missing file is no mistake. The file is never written.
///
/// Threads: one thread at a time uses an object; no other may read the fields during `reload`.
class TAVO_KIT_EXPORT IniConfig
{
public:
    /// \param fileName a name without folders
    explicit IniConfig(QString fileName);
    virtual ~IniConfig();
    IniConfig(const IniConfig&) = delete;
    IniConfig& operator=(const IniConfig&) = delete;

    /// Registers a field under a key. Only `reload` writes to the field, which must live as long as this
    /// object is reloaded.
    ///
    /// \param description the text for `descriptions`
    /// \return the value to store in the field now, which is its default
    bool regBoolParam(bool* field, bool defaultValue, const QString& key, const QString& description);
    int regIntParam(int* field, int defaultValue, const QString& key, const QString& description);

    /// Reads the file again and sets every registered field: to its value in the file, or to its default when
    /// the file has no valid one.
    void reload();

    /// A registered key, for a listing such as a program's help.
    struct Description
    {
        QString key;

        /// The default as the file would write it.
        QString defaultValue;

        QString text;
    };

    /// The registered keys in the order of registration.
    std::vector<Description> descriptions() const;

    /// The file that the last `reload` read or skipped; empty when there was none.
    QString filePath() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace tavo::kit
