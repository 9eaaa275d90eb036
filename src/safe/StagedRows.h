#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

namespace kyr::parquet {

/// The last few rows of a part whose samples come one by one. They wait here for each other,
/// because of thousands of signals that get a sample each in turn, nothing stays in the processor's
/// cache: a row here costs two lines of the cache, a row that goes to its content more than ten.
class StagedRows {
 public:
  /// Adds a row of a flat column if allow() has left room for it.
  bool add(const void* row, std::size_t bytes) {
    if (room_ < bytes) return false;
    if (bytes == sizeof(std::uint64_t)) {
      std::memcpy(bytes_.get() + size_, row, sizeof(std::uint64_t));
    } else {
      std::memcpy(bytes_.get() + size_, row, bytes);
    }
    size_ += static_cast<std::uint32_t>(bytes);
    room_ -= static_cast<std::uint32_t>(bytes);
    return true;
  }

  /// Leaves room for \p rows rows, or for fewer. There are none yet.
  void allow(std::size_t rows, std::size_t width) {
    if (rows > kMostBytes / width) rows = kMostBytes / width;
    if (rows > 0 && !bytes_) bytes_ = std::make_unique<char[]>(kMostBytes);
    room_ = static_cast<std::uint32_t>(rows * width);
  }

  bool empty() const { return size_ == 0; }
  std::size_t size() const { return size_; }
  const char* data() const { return bytes_.get(); }
  /// Removes all rows, and leaves no room.
  void clear() { size_ = room_ = 0; }

 private:
  static constexpr std::size_t kMostBytes =
      248;  // with what malloc() adds, four lines of the cache

  std::unique_ptr<char[]> bytes_;
  std::uint32_t size_ = 0;
  std::uint32_t room_ = 0;
};

}  // namespace kyr::parquet
