#include "output.h"

#include <QList>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cwchar>
#include <iostream>
#include <system_error>
#include <utility>

namespace tavo::tool {

namespace {

constexpr int kWidestColumn = 60;
constexpr int kColumnGap = 2;

/// The columns that a text takes on a terminal: two for Han and Kana, none for combining marks.
int displayWidth(const QString& text)
{
    int width = 0;
    for (const char32_t character : text.toUcs4()) {
        width += std::max(0, ::wcwidth(static_cast<wchar_t>(character)));
    }
    return width;
}

/// Control characters in a value must not steer the terminal.
QString printable(QString text)
{
    for (QChar& character : text) {
        if (character.category() == QChar::Other_Control) {
            character = QChar(QChar::ReplacementCharacter);
        }
    }
    return text;
}

[[noreturn]] void throwOutputError()
{
    throw std::system_error(errno, std::generic_category(), "write to standard output");
}

} // namespace

void printLine(const std::string& line)
{
    if (std::fwrite(line.data(), 1, line.size(), stdout) != line.size() || std::fputc('\n', stdout) == EOF) {
        throwOutputError();
    }
}

void flushOutput()
{
    // Writing a note flushes standard output, too; a failure of that shows only in the stream's state.
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        throwOutputError();
    }
}

void note(const std::string& line) { std::cerr << line << '\n'; }

Table::Table(std::vector<QString> header)
    : m_widths(header.size(), 0)
{
    add(std::move(header));
}

void Table::add(std::vector<QString> row)
{
    for (std::size_t column = 0; column < row.size(); ++column) {
        row[column] = printable(std::move(row[column]));
        m_widths[column] = std::max(m_widths[column], std::min(displayWidth(row[column]), kWidestColumn));
    }
    m_rows.push_back(std::move(row));
}

void Table::print()
{
    for (const auto& row : m_rows) {
        QString line;
        for (std::size_t column = 0; column + 1 < row.size(); ++column) {
            const int padding = std::max(0, m_widths[column] - displayWidth(row[column])) + kColumnGap;
            line += row[column] + QString(padding, QLatin1Char(' '));
        }
        printLine((line + row.back()).toStdString());
    }
    m_rows.clear();
}

} // namespace tavo::tool
