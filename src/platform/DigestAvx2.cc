#include "platform/Digest.h"

// Compiled with AVX2 where the compiler knows it; the inlined functions choose their instructions by
// that.
namespace kyr {

XXH128_hash_t digestWithAvx2(const void* bytes, std::size_t size) {
  return XXH3_128bits(bytes, size);
}

}  // namespace kyr
