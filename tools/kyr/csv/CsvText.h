#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "csv/CsvDialect.h"
#include "csv/CsvTokenizer.h"
#include "csv/MappedText.h"

namespace kyr::tool {

/// A CSV file: the cells of its header and the text of its body.
class CsvText {
 public:
  /// \throws std::runtime_error if the file cannot be read or has no header in UTF-8
  CsvText(std::string path, CsvDialect dialect);

  const std::string& path() const { return path_; }
  const CsvDialect& dialect() const { return dialect_; }

  /// The cells of the header, without blanks around them.
  const std::vector<std::string>& header() const { return header_; }

  /// The text behind the header row, and the line at which it begins.
  std::string_view body() const { return mapped_.text().substr(bodyPosition_); }
  std::int64_t bodyLine() const { return bodyLine_; }

  /// Names the first row in which a quotation mark is not closed, or else the first one with
  /// another number of cells than the header.
  /// \param otherwise  what is said if there is neither
  [[noreturn]] void throwUnreadable(const std::string& otherwise) const;

 private:
  void readHeader();

  std::string path_;
  CsvDialect dialect_;
  MappedText mapped_;
  std::vector<std::string> header_;
  std::size_t bodyPosition_ = 0;
  std::int64_t bodyLine_ = 1;
};

}  // namespace kyr::tool
