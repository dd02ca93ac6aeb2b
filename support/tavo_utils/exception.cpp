#include "tavo_utils/exception.h"

#include <utility>

namespace tavo::utils {

Exception::Exception(const Exception& other) noexcept
    : std::exception(other)
{}

Exception& Exception::operator=(const Exception& other) noexcept
{
    std::exception::operator=(other);
    return *this;
}

Exception::~Exception() = default;

const char* Exception::what() const noexcept
{
    try {
        std::string text = message().toStdString();
        const std::lock_guard lock(m_mutex);
        if (m_what != text) { // otherwise it stays where other threads are reading it
            m_what = std::move(text);
        }
        return m_what.c_str();
    } catch (...) {
        return "tavo::utils::Exception (the message could not be composed)";
    }
}

} // namespace tavo::utils
