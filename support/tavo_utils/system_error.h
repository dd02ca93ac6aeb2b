#pragma once

#include <tavo_utils/export.h>

#include <QString>

#include <cerrno>

namespace tavo::utils {

/// The operating system's last error code on the calling thread, `errno`. Thread-safe.
class TAVO_UTILS_EXPORT SystemError
{
public:
    SystemError() = delete;

    /// Returns `errno`. Call it right after the failing call: nearly everything else may change it.
    static int getLastOSErrorCode() noexcept;

    /// Sets `errno`.
    static void setLastErrorCode(int code) noexcept;

    /// The system's text for an error code; for an unknown one, a text that names the number. Leaves `errno`
    /// as it was.
    static QString toString(int code);
};

/// Restores `errno` at the end of the scope to its value at the beginning.
class [[nodiscard]] SystemErrorKeeper
{
public:
    SystemErrorKeeper() noexcept
        : m_code(errno)
    {}

    ~SystemErrorKeeper() { errno = m_code; }

    SystemErrorKeeper(const SystemErrorKeeper&) = delete;
    SystemErrorKeeper& operator=(const SystemErrorKeeper&) = delete;

private:
    int m_code;
};

} // namespace tavo::utils
