#include "scarce_memory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace tavo::test {

namespace {

std::atomic<std::size_t> refusedSize = 0;

void* allocate(std::size_t size)
{
    void* const memory = size != refusedSize ? std::malloc(size) : nullptr;
    return memory != nullptr ? memory : throw std::bad_alloc();
}

} // namespace

ScarceMemory::ScarceMemory(std::size_t size) { refusedSize = size; }

ScarceMemory::~ScarceMemory() { refusedSize = 0; }

} // namespace tavo::test

void* operator new(std::size_t size) { return tavo::test::allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
