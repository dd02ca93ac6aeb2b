#pragma once

#include <atomic>
#include <chrono>
#include <optional>

namespace tavo::ldap {

/// The limits of time that a connection has, as its options name them.
enum class Limit
{
    connect,
    answer,
    response,
    pageSilence,
};

/// When a server has last been heard of. Thread-safe.
class Activity
{
public:
    using Clock = std::chrono::steady_clock;

    Clock::time_point lastByte() const noexcept { return Clock::time_point(m_lastByte.load()); }

protected:
    ~Activity() = default;

    void noteBytes() noexcept { m_lastByte = Clock::now().time_since_epoch(); }

private:
    std::atomic<Clock::duration> m_lastByte{Clock::duration::zero()};
};

/// While it lives: how long the calling thread may wait for the server in the client library. A later one of the
/// same thread, as of a log that uses a session of its own, takes its place meanwhile. The thread that waits is the one that reads, whoever has asked, so the limit is the thread's and
/// not the connection's.
class TimeLimit
{
public:
    using Clock = Activity::Clock;
    using Duration = std::optional<std::chrono::milliseconds>;

    /// Longer than any connection. What is longer would leave the range of the clock, and of the client library's
    /// own waiting.
    static constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 20);

    /// \param connection may be null; there is no limit then. Must outlive it otherwise
    /// \param duration absent for no limit. Begins with the thread's first write or read
    TimeLimit(const Activity* connection, Limit limit, Duration duration);

    ~TimeLimit();
    TimeLimit(const TimeLimit&) = delete;
    TimeLimit& operator=(const TimeLimit&) = delete;

    /// That of the calling thread, if it is for the connection.
    static TimeLimit* ofThisThread(const Activity& connection);

    /// The thread is about to write or read. Between its last write and its first read it may have waited for
    /// the lock of another thread that waited for the server: that time doesn't count.
    void aboutToWrite();
    void hasWritten();
    void aboutToRead();

    /// Another limit begins, of whose duration so much is left.
    void switchTo(Limit limit, Duration duration, Duration left);

    /// When the wait is over; nothing for no limit. Every byte from the server puts off the end of a silence.
    std::optional<Clock::time_point> deadline() const;

    /// What is left until then; never below 0.
    Duration left() const;

    Limit limit() const { return m_limit; }
    Duration duration() const { return m_duration; }

private:
    void begin();

    TimeLimit* const m_former;
    const Activity* m_connection;
    Limit m_limit;
    Duration m_duration;
    std::optional<Clock::time_point> m_deadline;
    std::optional<Clock::time_point> m_lastWrite;
    bool m_hasRead = false;
};

} // namespace tavo::ldap
