#pragma once

#include <cstddef>

namespace tavo::test {

/// Has every `new` of this very size fail while it lives, on all threads. There is one at a time.
class ScarceMemory
{
public:
    explicit ScarceMemory(std::size_t size);
    ~ScarceMemory();
    ScarceMemory(const ScarceMemory&) = delete;
    ScarceMemory& operator=(const ScarceMemory&) = delete;
};

} // namespace tavo::test
