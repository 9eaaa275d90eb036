#pragma once

#include <xxhash.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kyr {

/// XXH3 with 128 bits and seed 0, computed with AVX2 if the processor has it.
XXH128_hash_t digestOfBytes(const void* bytes, std::size_t size);

/// The same with 64 bits.
std::uint64_t shortDigestOfBytes(const void* bytes, std::size_t size);

/// Adds bytes to those of which a digest of 64 or 128 bits will be taken.
void addToDigest(XXH3_state_t& state, const void* bytes, std::size_t size);

/// These do the same, but only on processors with AVX2.
XXH128_hash_t digestWithAvx2(const void* bytes, std::size_t size);
std::uint64_t shortDigestWithAvx2(const void* bytes, std::size_t size);
void addWithAvx2(XXH3_state_t& state, const void* bytes, std::size_t size);

/// 32 lower-case hexadecimal digits, the high half first.
using DigestDigits = std::array<char, 32>;
DigestDigits hexOf(const XXH128_hash_t& digest);
std::string digitsOf(const XXH128_hash_t& digest);

}  // namespace kyr
