#include "resources.h"

#include "support/sanitized.h"
#include "support/threads_end_here.h"

#include <ldap.h>

#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <fstream>

#if TAVO_ADDRESS_SANITIZED
#include <sanitizer/lsan_interface.h>
#endif

namespace {

std::atomic<std::size_t> liveHandles{0};
std::atomic<std::size_t> bytesKept{0};

/// The heap memory that a block takes, which may be a little more than was asked for.
std::size_t chunkSize(void* object) { return malloc_usable_size(object) + sizeof(std::size_t); }

void ignoreLeak([[maybe_unused]] const void* object)
{
#if TAVO_ADDRESS_SANITIZED
    __lsan_ignore_object(object);
#endif
}

} // namespace

// The linker replaces libldap's functions with these.
extern "C" {

int __real_ldap_initialize(LDAP** handle, const char* url);
int __real_ldap_init_fd(ber_socket_t socket, int protocol, const char* url, LDAP** handle);
LDAP* __real_ldap_dup(LDAP* handle);
int __real_ldap_destroy(LDAP* handle);
char* __real_ldap_first_attribute(LDAP* handle, LDAPMessage* entry, BerElement** iterator);

int __wrap_ldap_initialize(LDAP** handle, const char* url)
{
    const int rc = __real_ldap_initialize(handle, url);
    if (rc == LDAP_SUCCESS) {
        ++liveHandles;
    }
    return rc;
}

int __wrap_ldap_init_fd(ber_socket_t socket, int protocol, const char* url, LDAP** handle)
{
    const int rc = __real_ldap_init_fd(socket, protocol, url, handle);
    if (rc == LDAP_SUCCESS) {
        ++liveHandles;
    }
    return rc;
}

LDAP* __wrap_ldap_dup(LDAP* handle)
{
    LDAP* const duplicate = __real_ldap_dup(handle);
    if (duplicate != nullptr) {
        ++liveHandles;
    }
    return duplicate;
}

int __wrap_ldap_destroy(LDAP* handle)
{
    --liveHandles;
    return __real_ldap_destroy(handle);
}

// The iterator is never freed, by design (docs/by-design.md). Told here, so that LeakSanitizer need not
// unwind stacks the slow way to know its place.
char* __wrap_ldap_first_attribute(LDAP* handle, LDAPMessage* entry, BerElement** iterator)
{
    char* const name = __real_ldap_first_attribute(handle, entry, iterator);
    if (name != nullptr) {
        bytesKept += chunkSize(*iterator);
        ignoreLeak(*iterator);
    }
    return name;
}

} // extern "C"

namespace tavo::stress {

Resources Resources::now()
{
    std::size_t pages = 0;
    std::size_t residentPages = 0;
    std::ifstream("/proc/self/statm") >> pages >> residentPages;
    Resources resources;
    resources.threads = test::countIn("/proc/self/task");
    resources.descriptors = test::countIn("/proc/self/fd");
    resources.handles = liveHandles;
    resources.keptBytes = bytesKept;
    resources.heapBytes = mallinfo2().uordblks;
    resources.residentBytes = residentPages * static_cast<std::size_t>(getpagesize());
    return resources;
}

std::string Resources::toString() const
{
    return "threads " + std::to_string(threads) + ", descriptors " + std::to_string(descriptors) +
           ", handles " + std::to_string(handles) + ", heap " + std::to_string(heapBytes / 1024) +
           " KiB (by design " + std::to_string(keptBytes / 1024) + "), resident " +
           std::to_string(residentBytes / 1024) + " KiB";
}

} // namespace tavo::stress
