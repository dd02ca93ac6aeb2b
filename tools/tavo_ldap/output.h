#pragma once

#include <QString>

#include <string>
#include <vector>

namespace tavo::tool {

/// Writes one line to standard output.
/// \throws std::system_error when it can't be written, as when the reader has gone
void printLine(const std::string& line);

/// Hands everything printed to the operating system.
/// \throws std::system_error
void flushOutput();

/// Writes one line to standard error: whatever is not data.
void note(const std::string& line);

/// Rows in columns. Each `print` aligns what was added since the one before, so a long listing needs no more
/// memory than one page of it.
class Table
{
public:
    explicit Table(std::vector<QString> header);

    void add(std::vector<QString> row);
    void print();

private:
    std::vector<std::vector<QString>> m_rows;
    std::vector<int> m_widths;
};

} // namespace tavo::tool
