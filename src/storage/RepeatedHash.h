#pragma once

#include <xxhash.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/Digest.h"

namespace kyr::parquet {

/// Remembers the content hash of a vector that comes again and again, like the time vector of many
/// signals. A vector is recognised by its address. A digest of 128 bits (XXH3), which is several
/// times as fast as the content hash, tells whether it still holds the same bytes.
class RepeatedHash {
 public:
  /// The content hash of the \p bytes bytes at \p data.
  /// \param compute  computes it; must be the same function of the bytes for equal \p kind
  template <typename Compute>
  std::uint64_t of(const void* data, std::size_t bytes, std::size_t kind, Compute&& compute) {
    const Vector vector{data, bytes, kind};
    const bool isRepeated = vector == repeated_;
    if (!isRepeated && vector != recent_[0] && vector != recent_[1]) {
      recent_[0] = recent_[1];
      recent_[1] = vector;
      return compute();
    }
    const XXH128_hash_t digest = digestOfBytes(data, bytes);
    if (isRepeated && XXH128_isEqual(digest, digest_)) return hash_;
    repeated_ = vector;
    digest_ = digest;
    return hash_ = compute();
  }

 private:
  struct Vector {
    const void* data = nullptr;
    std::size_t bytes = 0;
    std::size_t kind = 0;
    bool operator==(const Vector& other) const {
      return data == other.data && bytes == other.bytes && kind == other.kind;
    }
    bool operator!=(const Vector& other) const { return !(*this == other); }
  };

  std::array<Vector, 2> recent_;  // two, because signals bring a time vector and data in turns
  Vector repeated_;
  XXH128_hash_t digest_{};
  std::uint64_t hash_ = 0;
};

}  // namespace kyr::parquet
