#pragma once

#if defined(__has_feature)
#define TAVO_HAS_FEATURE(x) __has_feature(x)
#else
#define TAVO_HAS_FEATURE(x) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || TAVO_HAS_FEATURE(address_sanitizer)
#define TAVO_ADDRESS_SANITIZED 1
#else
#define TAVO_ADDRESS_SANITIZED 0
#endif

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || TAVO_HAS_FEATURE(address_sanitizer) ||  \
    TAVO_HAS_FEATURE(thread_sanitizer)
#define TAVO_SANITIZED 1
#else
#define TAVO_SANITIZED 0
#endif

#undef TAVO_HAS_FEATURE

namespace tavo::test {

/// Whether this is compiled for AddressSanitizer or ThreadSanitizer, which make everything several times
/// slower.
inline constexpr bool sanitized = TAVO_SANITIZED != 0;

} // namespace tavo::test
