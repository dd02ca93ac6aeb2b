#pragma once

#include <gtest/gtest.h>

#include <stdexcept>
#include <typeinfo>

namespace tavo::test {

/// What `function` throws; it must be of this very type.
template <class Error, class Function>
Error thrownBy(Function function)
{
    try {
        function();
    } catch (const Error& error) {
        EXPECT_EQ(typeid(error), typeid(Error)) << "a derived type was thrown";
        return error;
    }
    throw std::runtime_error("nothing was thrown");
}

} // namespace tavo::test
