#pragma once

#include <cstddef>

namespace kyr {

/// Has the processor load memory that is needed soon. Any address will do.
/// \param lines  of its cache
inline void prefetch(const void* memory, std::size_t lines = 1) {
  constexpr std::size_t kLineBytes = 64;
  for (std::size_t i = 0; i < lines; ++i) {
    __builtin_prefetch(static_cast<const char*>(memory) + i * kLineBytes);
  }
}

}  // namespace kyr
