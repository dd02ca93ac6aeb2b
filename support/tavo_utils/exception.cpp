#include "tavo_utils/exception.h"

#include <memory>

namespace tavo::utils {

// A copy composes its own text: its type may be a base class with another `message`.
Exception::Exception(const Exception& other) noexcept
    : std::exception(other)
{}

Exception& Exception::operator=(const Exception& other) noexcept
{
    if (this == &other) {
        return *this;
    }
    std::exception::operator=(other);
    delete m_what.exchange(nullptr, std::memory_order_acq_rel);
    return *this;
}

Exception::~Exception() { delete m_what.load(std::memory_order_acquire); }

const char* Exception::what() const noexcept
{
    if (const std::string* const text = m_what.load(std::memory_order_acquire)) {
        return text->c_str();
    }
    try {
        auto text = std::make_unique<const std::string>(message().toStdString());
        const std::string* winner = nullptr;
        if (m_what.compare_exchange_strong(winner, text.get(), std::memory_order_acq_rel)) {
            winner = text.release();
        }
        return winner->c_str();
    } catch (...) {
        return "tavo::utils::Exception (the message could not be composed)";
    }
}

} // namespace tavo::utils
