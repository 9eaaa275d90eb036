#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "platform/ZeroedMemory.h"

namespace kyr::parquet {

/// Memory for the rows of thousands of small contents, in blocks that many of them share. A block
/// is as large as a huge page once there are many, so that the system makes it at once and not page
/// by page. It is freed when nobody uses any of it.
class SmallMemory {
 public:
  /// Larger pieces would leave too much of a block unused.
  static constexpr std::size_t kMostBytes = std::size_t{32} << 10U;

  /// \param bytes  at most kMostBytes
  /// \return memory at a multiple of 8, which keeps its block
  std::shared_ptr<char> take(std::size_t bytes) {
    if (!block_ || block_->size() - used_ < bytes) {
      constexpr std::size_t kFirst = 2 * kMostBytes;
      constexpr std::size_t kGrowth = 8;
      const std::size_t size =
          block_ ? std::min(kGrowth * block_->size(), platform::kHugePage) : kFirst;
      block_ = std::make_shared<platform::ZeroedMemory>(size);
      used_ = 0;
    }
    std::shared_ptr<char> memory(block_, block_->data() + used_);
    used_ += (bytes + sizeof(std::uint64_t) - 1) / sizeof(std::uint64_t) * sizeof(std::uint64_t);
    used_ = std::min(used_, block_->size());
    return memory;
  }

 private:
  std::shared_ptr<platform::ZeroedMemory> block_;
  std::size_t used_ = 0;
};

}  // namespace kyr::parquet
