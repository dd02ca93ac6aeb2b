#pragma once

#include <QString>

#include <string>
#include <vector>

namespace tavo::tool {

/// Writes one line to standard output.
/// \throws std::system_error when it can't be written, for instance because the reader is gone
void printLine(const std::string& line);

/// Passes everything printed to the operating system.
/// \throws std::system_error
void flushOutput();

/// Writes one line, which is not data, to standard error.
void note(const std::string& line);

/// Rows in aligned columns. Each `print` aligns the rows added since the previous one, so that a long listing
/// needs no more memory than one page of it.
class Table
{
public:
    explicit Table(std::vector<QString> header);

    void add(std::vector<QString> row);

    /// Prints the rows added since the previous call.
    /// \throws std::system_error
    void print();

private:
    std::vector<std::vector<QString>> m_rows;
    std::vector<int> m_widths;
};

} // namespace tavo::tool
