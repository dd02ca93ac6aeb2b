#pragma once

#include <tavo_utils/export.h>

#include <QString>

#include <atomic>
#include <exception>
#include <string>

namespace tavo::utils {

/// The base of these libraries' exceptions. A derived class says in `message` what went wrong; `what` gives
/// the same text to code that knows only `std::exception`.
///
/// A copy composes its text from its own type and fields.
///
/// Threads: several may call `what` and `message` of one object; assignment needs exclusive access.
class TAVO_UTILS_EXPORT Exception : public std::exception
{
public:
    Exception() noexcept = default;
    Exception(const Exception& other) noexcept;
    Exception& operator=(const Exception& other) noexcept;
    ~Exception() override;

    /// `message` as UTF-8, composed by the first call and owned by this object; a fixed text when memory runs
    /// out or `message` throws.
    const char* what() const noexcept override;

    /// What went wrong, for a person to read.
    virtual QString message() const = 0;

private:
    mutable std::atomic<const std::string*> m_what{nullptr};
};

} // namespace tavo::utils
