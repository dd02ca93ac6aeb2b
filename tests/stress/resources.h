#pragma once

#include <cstddef>
#include <string>

namespace tavo::stress {

/// What this process holds at a moment when nothing should be under way.
struct Resources
{
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    /// Connection handles of libldap; each search context has one.
    std::size_t handles = 0;
    /// In attribute iterators, which are never freed, by design; since the start of the process.
    std::size_t keptBytes = 0;
    /// In use in the C library's heap; 0 under a sanitizer, which has a heap of its own.
    std::size_t heapBytes = 0;
    std::size_t residentBytes = 0;

    static Resources now();

    std::string toString() const;
};

} // namespace tavo::stress
