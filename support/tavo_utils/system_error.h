#pragma once

#include <tavo_utils/export.h>

#include <QString>

#include <cerrno>

namespace tavo::utils {

/// The calling thread's last error code of the operating system (errno). Thread-safe: every thread has its
/// own.
class TAVO_UTILS_EXPORT SystemError
{
public:
    SystemError() = delete;

    /// errno. Read it right after the failing call: nearly everything in between may change it.
    [[nodiscard]] static int getLastOSErrorCode() noexcept;

    /// Sets errno.
    static void setLastErrorCode(int code) noexcept;

    /// The system's text for an error code, for an unknown one a text that names the number. Leaves errno
    /// alone.
    [[nodiscard]] static QString toString(int code);
};

/// Restores at the end of the scope the last error code that it found at the beginning.
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
