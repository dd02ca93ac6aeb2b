#pragma once

#include <tavo_utils/log.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tavo::test {

/// Collects everything that is logged during its lifetime, up to a level, in place of the default sink. Texts
/// are UTF-8, for plain comparison with literals. Thread-safe; when its destructor returns, no thread is in
/// its sink any more. Of nested captures, the innermost gets the messages.
class LogCapture
{
public:
    struct Message
    {
        log::Level level;
        std::string tag;
        std::string text;
        std::thread::id thread;
    };

    explicit LogCapture(log::Level maxLevel = log::Level::verbose);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// All messages so far, in the order in which they were written.
    [[nodiscard]] std::vector<Message> messages() const;
    /// Only their texts, of every level or of one.
    [[nodiscard]] std::vector<std::string> texts() const;
    [[nodiscard]] std::vector<std::string> texts(log::Level level) const;
    /// Whether some message's text contains @p part.
    [[nodiscard]] bool contains(std::string_view part) const;
    /// Waits for such a message; returns whether one came in time.
    [[nodiscard]] bool waitFor(
        std::string_view part, std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;
    /// Drops the messages so far.
    void clear();

private:
    void add(log::Level level, const QString& tag, const QString& text);
    bool containsLocked(std::string_view part) const;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_added;
    std::vector<Message> m_messages;
    log::Level m_previousLevel;
    log::Sink m_previousSink;
};

} // namespace tavo::test
