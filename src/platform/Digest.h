#pragma once

#include <xxhash.h>

#include <cstddef>

namespace kyr {

/// XXH3 with 128 bits, seed 0, with the widest instructions that the processor has.
XXH128_hash_t digestOfBytes(const void* bytes, std::size_t size);

/// The same for processors with AVX2; others do not know the instructions.
XXH128_hash_t digestWithAvx2(const void* bytes, std::size_t size);

}  // namespace kyr
