#include "ldap/private/wire/time_limit.h"

#include <algorithm>
#include <utility>

namespace tavo::ldap {

namespace {

thread_local TimeLimit* ofThread = nullptr;

} // namespace

TimeLimit::TimeLimit(const Activity* connection, Limit limit, Duration duration)
    : m_former(std::exchange(ofThread, this))
    , m_connection(connection)
    , m_limit(limit)
    , m_duration(duration ? std::optional(std::min(*duration, kLongest)) : std::nullopt)
{
    if (m_limit == Limit::pageSilence) {
        begin();
    }
}

TimeLimit::~TimeLimit() { ofThread = m_former; }

TimeLimit* TimeLimit::ofThisThread(const Activity& connection)
{
    return ofThread != nullptr && ofThread->m_connection == &connection ? ofThread : nullptr;
}

void TimeLimit::begin()
{
    if (m_duration && !m_deadline) {
        m_deadline = Clock::now() + *m_duration;
    }
}

void TimeLimit::aboutToWrite() { begin(); }

void TimeLimit::hasWritten()
{
    if (m_deadline) {
        m_lastWrite = Clock::now();
    }
}

void TimeLimit::aboutToRead()
{
    begin();
    if (!m_hasRead && m_lastWrite) {
        *m_deadline += Clock::now() - *m_lastWrite;
    }
    m_hasRead = true;
}

void TimeLimit::switchTo(Limit limit, Duration duration, Duration left)
{
    m_limit = limit;
    m_duration = duration;
    m_deadline.reset();
    m_lastWrite.reset();
    if (left) {
        m_deadline = Clock::now() + *left;
    }
}

std::optional<TimeLimit::Clock::time_point> TimeLimit::deadline() const
{
    if (m_deadline && m_limit == Limit::pageSilence) {
        return std::max(*m_deadline, m_connection->lastByte() + *m_duration);
    }
    return m_deadline;
}

TimeLimit::Duration TimeLimit::left() const
{
    const auto end = deadline();
    if (!end) {
        return std::nullopt;
    }
    return std::max(
        std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now()), std::chrono::milliseconds(0));
}

} // namespace tavo::ldap
