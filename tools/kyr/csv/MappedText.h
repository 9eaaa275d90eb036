#pragma once

#include <arrow/buffer.h>

#include <memory>
#include <string>
#include <string_view>

namespace kyr::tool {

/// The text of a file, mapped into memory. What comes from a pipe, is packed, or is in another
/// encoding than UTF-8, is copied to a temporary file first.
class MappedText {
 public:
  /// \param path  of a file, or "-" for standard input
  /// \param encoding  of the text; see InputDecoder
  /// \throws std::runtime_error naming the file if it cannot be read
  MappedText(const std::string& path, const std::string& encoding);

  std::string_view text() const { return std::string_view(*content_); }

  /// Frees the memory behind a part of the text. The part is read from the file again when it is
  /// needed.
  static void release(std::string_view part);

 private:
  std::shared_ptr<::arrow::Buffer> content_;
};

}  // namespace kyr::tool
