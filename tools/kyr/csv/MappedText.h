#pragma once

#include <arrow/buffer.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "csv/CsvRecords.h"

namespace kyr::tool {

/// The text of a CSV file, header and body. It is not in memory but mapped into it; what comes from
/// a pipe, by way of a temporary file.
class CsvText {
 public:
  /// \throws std::runtime_error if the file cannot be read or does not begin with a header in UTF-8
  explicit CsvText(std::string path);

  const std::string& path() const { return path_; }

  /// The header's cells, without blanks around them.
  const std::vector<std::string>& header() const { return header_; }

  /// What follows the header row, and the line of the file at which it begins.
  std::string_view body() const { return std::string_view(*content_).substr(bodyPosition_); }
  std::int64_t bodyLine() const { return bodyLine_; }

  /// The rows of the body.
  CsvRecordScanner rows() const { return {body(), bodyLine_}; }

  /// Lets go of the memory that a part of the body takes; it is read again where it is needed.
  static void release(std::string_view part);

  /// Why the body cannot be taken apart: the first row in which a quotation mark is not closed, or
  /// else the first one with another number of cells than the header.
  /// \param otherwise  what is said if there is neither
  [[noreturn]] void throwUnreadable(const std::string& otherwise) const;

 private:
  void readHeader(std::string_view text);

  std::string path_;
  std::shared_ptr<::arrow::Buffer> content_;
  std::vector<std::string> header_;
  std::size_t bodyPosition_ = 0;
  std::int64_t bodyLine_ = 1;
};

}  // namespace kyr::tool
