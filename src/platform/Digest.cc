#include "platform/Digest.h"

#include <fmt/format.h>

namespace kyr {

XXH128_hash_t digestOfBytes(const void* bytes, std::size_t size) {
#ifdef KYR_HAS_AVX2_DIGEST
  static const bool hasAvx2 = __builtin_cpu_supports("avx2") != 0;
  constexpr std::size_t kWorthACall = 1024;
  if (hasAvx2 && size >= kWorthACall) return digestWithAvx2(bytes, size);
#endif
  return XXH3_128bits(bytes, size);
}

std::string digitsOf(const XXH128_hash_t& digest) {
  return fmt::format("{:016x}{:016x}", digest.high64, digest.low64);
}

}  // namespace kyr
