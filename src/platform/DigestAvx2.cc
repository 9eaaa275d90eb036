#include "platform/Digest.h"

// This file is compiled for AVX2. The inlined functions of the library choose their instructions at
// compile time.
namespace kyr {

XXH128_hash_t digestWithAvx2(const void* bytes, std::size_t size) {
  return XXH3_128bits(bytes, size);
}

std::uint64_t shortDigestWithAvx2(const void* bytes, std::size_t size) {
  return XXH3_64bits(bytes, size);
}

void addWithAvx2(XXH3_state_t& state, const void* bytes, std::size_t size) {
  XXH3_128bits_update(&state, bytes, size);
}

}  // namespace kyr
