#pragma once

#include <arrow/buffer.h>

#include <memory>
#include <string>
#include <string_view>

namespace kyr::tool {

/// The bytes of a file, mapped into memory. A pipe is copied to a temporary file first.
class MappedText {
 public:
  /// \throws std::runtime_error naming the file if it cannot be read
  explicit MappedText(const std::string& path);

  std::string_view text() const { return std::string_view(*content_); }

  /// Frees the memory behind a part of the text. The part is read from the file again when it is
  /// needed.
  static void release(std::string_view part);

 private:
  std::shared_ptr<::arrow::Buffer> content_;
};

}  // namespace kyr::tool
