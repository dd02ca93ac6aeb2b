#include "scarce_memory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace tavo::test {

namespace {

std::atomic<std::size_t> refusedSize = 0;

void* allocate(std::size_t size) { return size != refusedSize ? std::malloc(size) : nullptr; }

} // namespace

ScarceMemory::ScarceMemory(std::size_t size) { refusedSize = size; }

ScarceMemory::~ScarceMemory() { refusedSize = 0; }

} // namespace tavo::test

void* operator new(std::size_t size)
{
    void* const memory = tavo::test::allocate(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return tavo::test::allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
