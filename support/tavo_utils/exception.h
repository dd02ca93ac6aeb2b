#pragma once

#include <tavo_utils/export.h>

#include <QString>

#include <atomic>
#include <exception>
#include <string>

namespace tavo::utils {

/// Base of the exceptions of these libraries: a derived class says in message() what went wrong, and what()
/// gives the same text to code that knows std::exception only.
///
/// Copies have the text of their own type and fields. Thread-safe as std::exception is: several threads may
/// call what() and message() of one object; assigning to it needs it alone.
class TAVO_UTILS_EXPORT Exception : public std::exception
{
public:
    Exception() noexcept = default;
    Exception(const Exception& other) noexcept;
    Exception& operator=(const Exception& other) noexcept;
    ~Exception() override;

    /// message() as UTF-8, composed at the first call and owned by this object. When there is no memory for
    /// it or message() throws, a fixed text.
    const char* what() const noexcept override;

    /// What went wrong, for a person to read.
    [[nodiscard]] virtual QString message() const = 0;

private:
    mutable std::atomic<const std::string*> m_what{nullptr};
};

} // namespace tavo::utils
