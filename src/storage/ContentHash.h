#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <typeinfo>
#include <vector>

namespace kyr::parquet {

constexpr std::uint64_t kHashIncrement = 0x9e3779b9;

/// One step of the content hash, modulo 2^64: that of boost::hash_combine with 64 bits.
constexpr std::uint64_t mixHash(std::uint64_t hash, std::uint64_t element) {
  return hash ^ ((hash >> 2) + (hash << 6) + kHashIncrement + element);
}

/// What an element contributes to the hash. A floating-point number contributes its bit pattern,
/// and both zeros contribute 0. An integer is extended to 64 bits by its own signedness; char is
/// signed.
template <typename T>
std::uint64_t hashElement(T value) {
  if constexpr (std::is_floating_point_v<T>) {
    if (value == T(0)) return 0;
    std::conditional_t<sizeof(T) == 8, std::uint64_t, std::uint32_t> bits;
    static_assert(sizeof(bits) == sizeof(value));
    std::memcpy(&bits, &value, sizeof(bits));
    return bits;
  } else if constexpr (std::is_same_v<T, char> || std::is_signed_v<T>) {
    return static_cast<std::uint64_t>(
        static_cast<std::int64_t>(static_cast<std::make_signed_t<T>>(value)));
  } else {
    return value;
  }
}

/// Hash of \p count elements of type T at \p values, which need not be aligned, and after them of
/// the values of the dimension vectors in order, as 32-bit numbers. It starts from
/// std::type_info::hash_code, so it is stable within one process only.
template <typename T>
std::uint64_t contentHash(const void* values, std::size_t count,
                          const std::vector<std::vector<std::size_t>>& dimensions) {
  std::uint64_t hash = typeid(T).hash_code() + 1;
  const auto* bytes = static_cast<const unsigned char*>(values);
  for (std::size_t i = 0; i < count; ++i) {
    T value;
    std::memcpy(&value, bytes + i * sizeof(T), sizeof(T));
    hash = mixHash(hash, hashElement(value));
  }
  hash += typeid(int).hash_code() + 1;
  for (const auto& dimension : dimensions) {
    for (const std::size_t extent : dimension) {
      hash = mixHash(hash, hashElement(static_cast<std::int32_t>(extent)));
    }
  }
  return hash;
}

}  // namespace kyr::parquet
