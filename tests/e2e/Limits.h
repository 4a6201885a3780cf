// What the daemon under test may use.
#pragma once

#include <cstddef>

namespace corvid {

// The daemon needs some 20 MB; sanitizers take several times as much.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr std::size_t mostMemory = std::size_t{1} << 30;
inline constexpr std::size_t mostIdleMemory = mostMemory;
#else
inline constexpr std::size_t mostMemory = std::size_t{96} << 20;
inline constexpr std::size_t mostIdleMemory = std::size_t{40} << 20;
#endif

}  // namespace corvid
