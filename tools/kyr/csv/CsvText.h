#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "csv/CsvLayout.h"
#include "csv/CsvOptions.h"
#include "csv/MappedText.h"

namespace kyr::tool {

/// A CSV file: what its first rows say, and the text of all rows of values.
class CsvText {
 public:
  /// \param path  of a file, or "-" for standard input
  /// \throws std::runtime_error if the file cannot be read or has no header in UTF-8
  CsvText(const std::string& path, const CsvOptions& options);

  /// What messages call the file.
  const std::string& name() const { return name_; }
  const CsvLayout& layout() const { return layout_; }
  const CsvDialect& dialect() const { return layout_.dialect; }

  /// The rows of values, and the line at which they begin.
  std::string_view body() const { return mapped_.text().substr(bodyPosition_); }
  std::int64_t bodyLine() const { return layout_.bodyLine; }

  /// Names the first row in which a quotation mark is not closed, or else the first one with
  /// another number of cells than the header.
  /// \param otherwise  what is said if there is neither
  [[noreturn]] void throwUnreadable(const std::string& otherwise) const;

 private:
  std::string name_;
  MappedText mapped_;
  CsvLayout layout_;
  std::size_t bodyPosition_ = 0;
};

}  // namespace kyr::tool
