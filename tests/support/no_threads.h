#pragma once

#include <gtest/gtest.h>

#include <pthread.h>

#include <cstddef>

namespace tavo::test {

/// No thread can be started during its lifetime: the default stack size is one that no machine has.
class NoThreads
{
public:
    NoThreads()
    {
        pthread_getattr_default_np(&m_former);
        pthread_attr_t attributes;
        pthread_getattr_default_np(&attributes);
        EXPECT_EQ(pthread_attr_setstacksize(&attributes, std::size_t{1} << 60), 0);
        EXPECT_EQ(pthread_setattr_default_np(&attributes), 0);
        pthread_attr_destroy(&attributes);
    }
    ~NoThreads()
    {
        pthread_setattr_default_np(&m_former);
        pthread_attr_destroy(&m_former);
    }
    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;

private:
    pthread_attr_t m_former;
};

} // namespace tavo::test
