#pragma once

#include <cstddef>
#include <utility>

namespace kyr::platform {

/// The size of a huge page on most machines.
constexpr std::size_t kHugePage = std::size_t{2} << 20U;

/// Memory that begins as zeros, at the start of a cache line. Where it has huge pages of its own
/// and the system offers them, the processor reaches any place of it without reading page tables,
/// and the system clears it at once instead of page by page.
class ZeroedMemory {
 public:
  ZeroedMemory() = default;
  /// \throws std::bad_alloc if there is not as much
  explicit ZeroedMemory(std::size_t size);
  ZeroedMemory(const ZeroedMemory& other);
  ~ZeroedMemory();
  ZeroedMemory(ZeroedMemory&& other) noexcept { *this = std::move(other); }
  ZeroedMemory& operator=(ZeroedMemory&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    return *this;
  }

  char* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  char* data_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace kyr::platform
