#include "tavo_utils/log.h"

#include <tavo_utils/async_operation_guard.h>
#include <tavo_utils/scope_guard.h>
#include <tavo_utils/tag_names.h>

#include <QMessageLogContext>

#include <algorithm>
#include <cstdint>
#include <map>

namespace tavo::log {

namespace detail {

constinit std::atomic<int> ceiling{static_cast<int>(Level::info)};

} // namespace detail

namespace {

/// The guard tells `setSink` when no other thread is inside the sink any more.
struct GuardedSink
{
    explicit GuardedSink(Sink function)
        : sink(std::move(function))
    {}

    /// Empty: the default sink.
    const Sink sink;

    utils::AsyncOperationGuard guard;
};

struct State
{
    std::mutex mutex;
    Level maxLevel = Level::info;
    std::map<QString, Level> tagLevels;
    TagNames tagNames;
    ReducerConfig reducer;
    std::shared_ptr<GuardedSink> sink = std::make_shared<GuardedSink>(Sink());
};

/// By design: never destroyed, since threads may log while the process exits; the pointer keeps it reachable.
State& state()
{
    static auto* const instance = new State;
    return *instance;
}

constinit std::atomic<bool> passwordsShown{false};

/// To be called with the state's mutex held, after every change of a limit.
void updateCeiling(const State& limits)
{
    Level greatest = limits.maxLevel;
    for (const auto& [name, level] : limits.tagLevels) {
        greatest = std::max(greatest, level);
    }
    detail::ceiling.store(static_cast<int>(greatest), std::memory_order_relaxed);
}

/// By design: the logger is asked directly, without the category's own check, since our levels have decided.
/// `QDebug` is avoided because it passes the message on in its destructor: running out of memory there would
/// end the process.
void writeToQt(Level level, const QString& tag, const QString& text)
{
    const QtMsgType type = level == Level::warning ? QtWarningMsg
                           : level == Level::info  ? QtInfoMsg
                                                   : QtDebugMsg;
    qt_message_output(
        type, QMessageLogContext(nullptr, 0, nullptr, "tavo.ldap"), tag + QStringLiteral(": ") + text);
}

/// Members are destroyed from the last to the first: once `setSink` need not wait for the lock any more, nobody
/// else owns the sink.
struct SinkInUse
{
    utils::AsyncOperationGuard::Lock lock;
    std::shared_ptr<const GuardedSink> sink;
};

/// Taken together, so that the sink isn't replaced in between.
SinkInUse currentSink()
{
    const std::lock_guard lock(state().mutex);
    return {state().sink->guard.sharedGuard().lock(), state().sink};
}

void writeToSink(Level level, const QString& tag, const QString& text)
{
    const SinkInUse current = currentSink();
    if (!current.sink->sink) {
        return writeToQt(level, tag, text);
    }
    current.sink->sink(level, tag, text);
}

/// The number of nested messages on this thread: a sink may log, too.
thread_local int nesting = 0;

void deliver(Level level, const QString& tag, const QString& text)
{
    const utils::ScopeGuard leave([] { --nesting; });
    ++nesting;
    if (nesting == 1) {
        writeToSink(level, tag, text);
    } else {
        writeToQt(level, tag, text); // Qt keeps its handler from being called recursively
    }
}

} // namespace

void setMaxLevel(Level level)
{
    const std::lock_guard lock(state().mutex);
    state().maxLevel = level;
    updateCeiling(state());
}

Level maxLevel()
{
    const std::lock_guard lock(state().mutex);
    return state().maxLevel;
}

void setTagLevel(const QString& typeName, Level level)
{
    const std::lock_guard lock(state().mutex);
    state().tagLevels[typeName] = level;
    updateCeiling(state());
}

void clearTagLevels()
{
    const std::lock_guard lock(state().mutex);
    state().tagLevels.clear();
    updateCeiling(state());
}

Level Tag::limit() const
{
    const std::lock_guard lock(state().mutex);
    if (state().tagLevels.empty()) {
        return state().maxLevel;
    }
    const auto found = state().tagLevels.find(state().tagNames.of(*m_type, m_address == nullptr));
    return found != state().tagLevels.end() ? found->second : state().maxLevel;
}

QString Tag::name() const { return tagName(*m_type, m_address == nullptr); }

QString Tag::toString() const
{
    if (!m_address) {
        return name();
    }
    const QString address = QString::number(reinterpret_cast<std::uintptr_t>(m_address), 16);
    const QString text = m_text.isEmpty() ? QString() : utils::format(u", %1", m_text);
    return utils::format(u"%1(0x%2%3)", name(), address, text);
}

bool admits(Level level, const Tag& tag) { return admits(level) && level <= tag.limit(); }

void setReducerConfig(const ReducerConfig& config)
{
    const std::lock_guard lock(state().mutex);
    state().reducer = config;
}

ReducerConfig reducerConfig()
{
    const std::lock_guard lock(state().mutex);
    return state().reducer;
}

bool showPasswords() noexcept { return passwordsShown.load(std::memory_order_relaxed); }

void setShowPasswords(bool show) noexcept { passwordsShown.store(show, std::memory_order_relaxed); }

Sink setSink(Sink sink)
{
    auto replacement = std::make_shared<GuardedSink>(std::move(sink));
    {
        const std::lock_guard lock(state().mutex);
        state().sink.swap(replacement);
    }
    replacement->guard.invalidate(); // after the swap, so nobody takes its lock any more
    return replacement->sink;
}

void write(Level level, const Tag& tag, const QString& text) noexcept
{
    const utils::SystemErrorKeeper keeper;
    try {
        deliver(level, tag.toString(), text);
    } catch (...) { // there is nowhere left to report it
    }
}

namespace detail {

int Reducer::count()
{
    const auto now = utils::MonotonicTime::now();
    const std::lock_guard lock(m_mutex);
    if (m_count == 0 || now - m_periodStart >= reducerConfig().period) {
        m_periodStart = now;
        m_count = 0;
    }
    return ++m_count;
}

Decision Reducer::decide(Level level, const Tag& tag)
{
    if (!admits(level, tag)) {
        return {};
    }
    const int limit = reducerConfig().limit;
    const int position = count();
    if (limit < 1 || position < limit) {
        return {true, level, false};
    }
    if (position == limit) {
        return {true, level, true};
    }
    return {admits(Level::debug, tag), Level::debug, false};
}

void write(const Decision& decision, const Tag& tag, const QString& text) noexcept
{
    try {
        log::write(decision.level, tag,
            decision.isTooMany ? QStringLiteral("TOO MANY SIMILAR MESSAGES: ") + text : text);
    } catch (...) { // no memory for the message, and none to say so
    }
}

} // namespace detail

} // namespace tavo::log
