#include "support/log_capture.h"

#include <algorithm>

namespace tavo::test {

LogCapture::LogCapture(log::Level maxLevel)
    : m_previousLevel(log::maxLevel())
    , m_previousSink(log::setSink(
          [this](log::Level level, const QString& tag, const QString& text) { add(level, tag, text); }))
{
    log::setMaxLevel(maxLevel);
}

LogCapture::~LogCapture()
{
    log::setMaxLevel(m_previousLevel);
    log::setSink(std::move(m_previousSink));
}

std::vector<LogCapture::Message> LogCapture::messages() const
{
    const std::lock_guard lock(m_mutex);
    return m_messages;
}

std::vector<std::string> LogCapture::texts() const
{
    std::vector<std::string> all;
    for (const Message& message : messages())
        all.push_back(message.text);
    return all;
}

std::vector<std::string> LogCapture::texts(log::Level level) const
{
    std::vector<std::string> found;
    for (const Message& message : messages()) {
        if (message.level == level)
            found.push_back(message.text);
    }
    return found;
}

bool LogCapture::contains(std::string_view part) const
{
    const std::lock_guard lock(m_mutex);
    return containsLocked(part);
}

bool LogCapture::waitFor(std::string_view part, std::chrono::milliseconds timeout) const
{
    std::unique_lock lock(m_mutex);
    return m_added.wait_for(lock, timeout, [&] { return containsLocked(part); });
}

void LogCapture::clear()
{
    const std::lock_guard lock(m_mutex);
    m_messages.clear();
}

void LogCapture::add(log::Level level, const QString& tag, const QString& text)
{
    const std::lock_guard lock(m_mutex);
    m_messages.push_back({level, tag.toStdString(), text.toStdString(), std::this_thread::get_id()});
    m_added.notify_all();
}

bool LogCapture::containsLocked(std::string_view part) const
{
    return std::any_of(m_messages.begin(), m_messages.end(),
        [&](const Message& message) { return message.text.find(part) != std::string::npos; });
}

} // namespace tavo::test
