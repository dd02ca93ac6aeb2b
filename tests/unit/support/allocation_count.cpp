#include "allocation_count.h"

#include "support/sanitized.h"

#include <cstdlib>

namespace {

thread_local std::size_t allocations = 0;

} // namespace

#if TAVO_SANITIZED

// A sanitizer's own functions are needed in place of malloc() and its like, and tell of their calls.
extern "C" int __sanitizer_install_malloc_and_free_hooks(
    void (*onMalloc)(const volatile void*, std::size_t), void (*onFree)(const volatile void*));

namespace {

[[maybe_unused]] const int installed = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t) { ++allocations; }, [](const volatile void*) {});

} // namespace

#else

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

// They stand before the C library's for the libraries, too.
void* malloc(std::size_t size) noexcept
{
    ++allocations;
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept
{
    ++allocations;
    return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) noexcept
{
    ++allocations;
    return __libc_realloc(memory, size);
}
}

#endif

namespace tavo::test {

std::size_t allocationsOfThisThread() noexcept { return allocations; }

} // namespace tavo::test
