#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace kyr::parquet {

/// Bytes that grow at the end. It appends a single number at the cost of copying it, where a vector
/// fills new bytes with zeros first, and it grows with realloc(), which can move large memory
/// without copying it.
class ByteBuffer {
 public:
  ByteBuffer() = default;
  ByteBuffer(ByteBuffer&& other) noexcept { *this = std::move(other); }
  ByteBuffer& operator=(ByteBuffer&& other) noexcept {
    bytes_ = std::move(other.bytes_);
    size_ = std::exchange(other.size_, 0);
    capacity_ = std::exchange(other.capacity_, 0);
    return *this;
  }

  const char* data() const { return bytes_.get(); }
  char* data() { return bytes_.get(); }
  std::size_t size() const { return size_; }
  std::size_t capacity() const { return capacity_; }
  /// By how many bytes the memory grows when \p count bytes are appended.
  std::size_t growthFor(std::size_t count) const {
    return count > capacity_ - size_ ? grown(count) - capacity_ : 0;
  }

  void append(const void* bytes, std::size_t count) {
    if (count > capacity_ - size_) grow(count);
    if (count == sizeof(std::uint64_t)) {
      std::memcpy(bytes_.get() + size_, bytes, sizeof(std::uint64_t));
    } else if (count > 0) {
      std::memcpy(bytes_.get() + size_, bytes, count);
    }
    size_ += count;
  }

  /// Adds \p count bytes of undefined content. The caller fills them in.
  void extend(std::size_t count) {
    if (count > capacity_ - size_) grow(count);
    size_ += count;
  }
  void truncate(std::size_t size) { size_ = std::min(size_, size); }

  /// Removes the first \p count bytes. Memory of up to twice \p keep bytes is kept, more than that
  /// is given back.
  void dropFront(std::size_t count, std::size_t keep) {
    const std::size_t rest = size_ - count;
    if (capacity_ / 2 > keep) {
      ByteBuffer fresh;
      if (const std::size_t needed = std::max(keep, rest); needed > 0) fresh.reserve(needed);
      fresh.append(bytes_.get() + count, rest);
      *this = std::move(fresh);
      return;
    }
    if (rest > 0) std::memmove(bytes_.get(), bytes_.get() + count, rest);
    size_ = rest;
  }

 private:
  struct Free {
    void operator()(char* bytes) const { std::free(bytes); }
  };

  std::size_t grown(std::size_t count) const { return std::max(size_ + count, 2 * capacity_); }
  void grow(std::size_t count) { reserve(grown(count)); }

  void reserve(std::size_t capacity) {
    auto* const bytes = static_cast<char*>(std::realloc(bytes_.get(), capacity));
    if (bytes == nullptr) throw std::bad_alloc();
    static_cast<void>(bytes_.release());
    bytes_.reset(bytes);
    capacity_ = capacity;
  }

  std::unique_ptr<char, Free> bytes_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace kyr::parquet
