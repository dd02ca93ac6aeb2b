#pragma once

#include <filesystem>
#include <string_view>

namespace tavo::test {

/// A new, empty directory that no other user can read; the destructor removes it with its contents.
class TemporaryDirectory
{
public:
    /// Made under $TMPDIR, or /tmp. Throws std::system_error when it can't be made.
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return m_path; }

    /// Writes a file of that name with that content and returns its path. Throws std::runtime_error on
    /// failure.
    std::filesystem::path write(std::string_view name, std::string_view content) const;

private:
    std::filesystem::path m_path;
};

/// The whole content of a file; empty when it can't be read.
std::string readFile(const std::filesystem::path& file);

} // namespace tavo::test
