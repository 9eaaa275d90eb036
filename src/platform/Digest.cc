#include "platform/Digest.h"

namespace kyr {

namespace {

// Whether so many bytes are taken with AVX2.
bool takesAvx2([[maybe_unused]] std::size_t size) {
#ifdef KYR_HAS_AVX2_DIGEST
  static const bool hasAvx2 = __builtin_cpu_supports("avx2") != 0;
  constexpr std::size_t kWorthACall = 1024;
  return hasAvx2 && size >= kWorthACall;
#else
  return false;
#endif
}

}  // namespace

XXH128_hash_t digestOfBytes(const void* bytes, std::size_t size) {
  return takesAvx2(size) ? digestWithAvx2(bytes, size) : XXH3_128bits(bytes, size);
}

std::uint64_t shortDigestOfBytes(const void* bytes, std::size_t size) {
  return takesAvx2(size) ? shortDigestWithAvx2(bytes, size) : XXH3_64bits(bytes, size);
}

// The state of a digest is the same with all instructions, and for 64 and 128 bits.
void addToDigest(XXH3_state_t& state, const void* bytes, std::size_t size) {
  if (size == 0) return;
  if (takesAvx2(size)) return addWithAvx2(state, bytes, size);
  XXH3_128bits_update(&state, bytes, size);
}

DigestDigits hexOf(const XXH128_hash_t& digest) {
  constexpr char kDigits[] = "0123456789abcdef";
  XXH128_canonical_t bytes;
  XXH128_canonicalFromHash(&bytes, digest);
  DigestDigits digits;
  for (std::size_t i = 0; i < sizeof(bytes.digest); ++i) {
    digits[2 * i] = kDigits[bytes.digest[i] >> 4U];
    digits[2 * i + 1] = kDigits[bytes.digest[i] & 0xFU];
  }
  return digits;
}

std::string digitsOf(const XXH128_hash_t& digest) {
  const DigestDigits digits = hexOf(digest);
  return {digits.data(), digits.size()};
}

}  // namespace kyr
