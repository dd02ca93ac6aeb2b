#pragma once

#include <tavo_utils/assert.h>

#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace tavo::test {

/// Collects every failed assertion during its lifetime, which must enclose that of the threads that may
/// assert. Thread-safe.
class AssertionCapture
{
public:
    struct Failure
    {
        std::string file;
        int line;
        std::string condition;
        std::string message;

        bool operator==(const Failure&) const = default;
        friend std::ostream& operator<<(std::ostream& out, const Failure& failure)
        {
            return out << failure.file << ':' << failure.line << " (" << failure.condition << ") "
                       << failure.message;
        }
    };

    AssertionCapture();
    ~AssertionCapture();
    AssertionCapture(const AssertionCapture&) = delete;
    AssertionCapture& operator=(const AssertionCapture&) = delete;

    /// All failures so far, in their order.
    [[nodiscard]] std::vector<Failure> failures() const;

private:
    void add(SourcePosition position, const char* condition, const QString& message);

    mutable std::mutex m_mutex;
    std::vector<Failure> m_failures;
    AssertionHandler m_previous;
};

} // namespace tavo::test
