#include "support/assertion_capture.h"

#include <utility>

namespace tavo::test {

AssertionCapture::AssertionCapture()
    : m_previous(setAssertionHandler([this](SourcePosition position, const char* condition,
                                         const QString& message) { add(position, condition, message); }))
{}

AssertionCapture::~AssertionCapture() { setAssertionHandler(std::move(m_previous)); }

std::vector<AssertionCapture::Failure> AssertionCapture::failures() const
{
    const std::lock_guard lock(m_mutex);
    return m_failures;
}

void AssertionCapture::add(SourcePosition position, const char* condition, const QString& message)
{
    const std::lock_guard lock(m_mutex);
    m_failures.push_back({position.file, position.line, condition, message.toStdString()});
}

} // namespace tavo::test
