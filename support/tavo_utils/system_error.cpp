#include "tavo_utils/system_error.h"

#include <array>
#include <cstring>

namespace tavo::utils {

namespace {

// strerror_r comes in two forms: GNU's returns the text, POSIX's a code. Overload resolution picks the right
// one.
[[maybe_unused]] const char* textOf(const char* text, const char* /*buffer*/) { return text; }

[[maybe_unused]] const char* textOf(int /*code*/, const char* buffer) { return buffer; }

} // namespace

int SystemError::getLastOSErrorCode() noexcept { return errno; }

void SystemError::setLastErrorCode(int code) noexcept { errno = code; }

QString SystemError::toString(int code)
{
    const SystemErrorKeeper keeper;
    std::array<char, 256> buffer{};
    return QString::fromLocal8Bit(textOf(strerror_r(code, buffer.data(), buffer.size()), buffer.data()));
}

} // namespace tavo::utils
