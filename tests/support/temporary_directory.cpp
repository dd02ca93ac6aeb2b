#include "temporary_directory.h"

#include <stdlib.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tavo::test {

TemporaryDirectory::TemporaryDirectory()
{
    std::string name = std::filesystem::temp_directory_path() / "tavo-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + name);
    m_path = name;
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::filesystem::path TemporaryDirectory::write(std::string_view name, std::string_view content) const
{
    const std::filesystem::path file = m_path / name;
    std::ofstream stream(file, std::ios::binary);
    stream << content;
    stream.close();
    if (!stream)
        throw std::runtime_error("cannot write " + file.string());
    return file;
}

std::string readFile(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

} // namespace tavo::test
