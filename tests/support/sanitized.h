#pragma once

#if defined(__has_feature)
#define TAVO_HAS_FEATURE(x) __has_feature(x)
#else
#define TAVO_HAS_FEATURE(x) 0
#endif

namespace tavo::test {

/// Whether this is compiled for AddressSanitizer or ThreadSanitizer, which make everything several times
/// slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || TAVO_HAS_FEATURE(address_sanitizer) ||  \
    TAVO_HAS_FEATURE(thread_sanitizer)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif

} // namespace tavo::test

#undef TAVO_HAS_FEATURE
