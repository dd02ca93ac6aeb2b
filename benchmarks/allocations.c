/* Counts a program's memory allocations: to be preloaded. At the end of the program it writes their number to the file
   that TAVO_BENCH_ALLOCATIONS names. */
#define _GNU_SOURCE
#include <errno.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

static atomic_ulong allocations;

static void count(void) { atomic_fetch_add_explicit(&allocations, 1, memory_order_relaxed); }

void* malloc(size_t size)
{
    count();
    return __libc_malloc(size);
}

void* calloc(size_t number, size_t size)
{
    count();
    return __libc_calloc(number, size);
}

void* realloc(void* block, size_t size)
{
    count();
    return __libc_realloc(block, size);
}

void* memalign(size_t alignment, size_t size)
{
    count();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }

int posix_memalign(void** block, size_t alignment, size_t size)
{
    *block = memalign(alignment, size);
    return *block == NULL ? ENOMEM : 0;
}

__attribute__((destructor)) static void report(void)
{
    const char* name = getenv("TAVO_BENCH_ALLOCATIONS");
    FILE* file = name == NULL ? NULL : fopen(name, "w");
    if (file == NULL)
        return;
    fprintf(file, "%lu\n", atomic_load(&allocations));
    fclose(file);
}
