// Which sanitizer the build carries: one needs processes, threads and descriptors of its own.
#pragma once

namespace corvid {

#ifdef __has_feature  // clang
inline constexpr bool hasAddressSanitizer = __has_feature(address_sanitizer);
inline constexpr bool hasThreadSanitizer = __has_feature(thread_sanitizer);
#else
#ifdef __SANITIZE_ADDRESS__
inline constexpr bool hasAddressSanitizer = true;
#else
inline constexpr bool hasAddressSanitizer = false;
#endif
#ifdef __SANITIZE_THREAD__
inline constexpr bool hasThreadSanitizer = true;
#else
inline constexpr bool hasThreadSanitizer = false;
#endif
#endif
inline constexpr bool hasSanitizer = hasAddressSanitizer || hasThreadSanitizer;

}  // namespace corvid
