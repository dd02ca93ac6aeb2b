#pragma once

#include <tavo_utils/export.h>

#include <QString>

#include <exception>
#include <mutex>
#include <string>

namespace tavo::utils {

/// The base of these libraries' exceptions. A derived class says in `message` what went wrong; `what` gives
/// the same text to code that knows only `std::exception`.
///
/// A copy composes its text from its own type and fields.
///
/// Threads: several may call `what` and `message` of one object; assignment and changing a field need
/// exclusive access.
class TAVO_UTILS_EXPORT Exception : public std::exception
{
public:
    Exception() noexcept = default;
    Exception(const Exception& other) noexcept;
    Exception& operator=(const Exception& other) noexcept;
    ~Exception() override;

    /// `message` as UTF-8; a fixed text when memory runs out or `message` throws.
    ///
    /// Every call composes the message, so that it follows the fields. The text is owned by this object and
    /// stays in place until the object is destroyed, or until `what` is called after the message has changed.
    const char* what() const noexcept override;

    /// What went wrong, for a person to read. Depends on nothing but the object.
    virtual QString message() const = 0;

private:
    mutable std::mutex m_mutex;

    /// What `what` returned last. Guarded by `m_mutex`.
    mutable std::string m_what;
};

} // namespace tavo::utils
