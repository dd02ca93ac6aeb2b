#pragma once

#include <QByteArray>
#include <QString>

#include <string>

namespace tavo::test {

/// A QString literal for tests.
inline QString operator""_s(const char* text, std::size_t length)
{
    return QString::fromUtf8(text, static_cast<qsizetype>(length));
}

} // namespace tavo::test

/// Shows a text in a test's message. Found by GoogleTest through the global namespace, which is Qt's.
inline void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"' << (text.isNull() ? " (null)" : "");
}

inline void PrintTo(const QByteArray& bytes, std::ostream* out) { *out << '"' << bytes.toStdString() << '"'; }
