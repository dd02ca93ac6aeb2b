#pragma once

#include <tavo_utils/log.h>

#include <exception>

namespace tavo::ldap {

/// Makes a call into a caller's code from a destructor, where an exception would end the process.
template <class Call>
void callFromDestructor(const log::Tag& tag, Call&& call) noexcept
{
    try {
        call();
    } catch (const std::exception& error) {
        TAVO_LOG_WARNING(tag, u"The handler of a cancelled search threw an exception: %1", error.what());
    } catch (...) {
        TAVO_LOG_WARNING(tag, u"The handler of a cancelled search threw something that is no exception");
    }
}

} // namespace tavo::ldap
