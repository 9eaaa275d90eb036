#pragma once

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "platform/ByteSource.h"

namespace kyr::parquet {

/// A small file whose bytes were all read when it was opened.
class KeptFile final : public ByteSource {
 public:
  KeptFile(std::shared_ptr<const ByteSource> file, std::string bytes)
      : file_(std::move(file)), bytes_(std::move(bytes)) {}

  const std::filesystem::path& path() const override { return file_->path(); }
  std::uint64_t size() const override { return bytes_.size(); }
  std::size_t readAt(std::uint64_t offset, void* out, std::size_t size) const override {
    if (offset >= bytes_.size()) return 0;
    const auto from = static_cast<std::size_t>(offset);
    const std::size_t count = std::min(size, bytes_.size() - from);
    std::memcpy(out, bytes_.data() + from, count);
    return count;
  }

 private:
  std::shared_ptr<const ByteSource> file_;
  std::string bytes_;
};

}  // namespace kyr::parquet
