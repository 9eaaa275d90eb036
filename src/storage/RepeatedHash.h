#pragma once

#include <xxhash.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/Digest.h"

namespace kyr::parquet {

/// Spares content hashes of a vector that is handed in again and again, as the time vector of many
/// signals is. A vector is taken to be such a one by its address; that it holds what it held is told
/// by 128 bits of XXH3, which are several times faster than the content hash.
class RepeatedHash {
 public:
  /// \param compute  the content hash of the \p bytes bytes at \p data, which is always the same
  ///                 function of them for one \p kind
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

  std::array<Vector, 2> recent_;  // a time vector and the data of one signal
  Vector repeated_;
  XXH128_hash_t digest_{};
  std::uint64_t hash_ = 0;
};

}  // namespace kyr::parquet
