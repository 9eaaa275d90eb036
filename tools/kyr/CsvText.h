#pragma once

#include <arrow/type_fwd.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CsvRecords.h"

namespace kyr::tool {

/// The text of a CSV file: header and body, and where its rows are.
class CsvText {
 public:
  /// \throws std::runtime_error if the file cannot be read or does not begin with a header in UTF-8
  explicit CsvText(std::string path);

  const std::string& path() const { return path_; }

  /// The header's cells, without blanks around them.
  const std::vector<std::string>& header() const { return header_; }

  /// What follows the header row.
  std::shared_ptr<::arrow::Buffer> body() const;
  bool hasRows() const;

  /// Whether the body has quotation marks, and so cells that may hold line ends.
  bool hasQuotes() const;

  /// Bytes of the body's longest row, or more.
  /// \throws std::runtime_error if a quotation mark is never closed, which would swallow all rows
  ///         after it
  std::size_t longestRow() const;

  /// The line of the file at which body row \p row, from 0, begins.
  std::int64_t lineOfRow(std::int64_t row) const;

  /// The first body row with another number of cells than the header.
  std::optional<CsvRecord> raggedRow() const;

 private:
  std::string_view bodyText() const;
  CsvRecordScanner bodyRows() const { return {bodyText(), bodyLine_}; }
  void readHeader(std::string_view text);

  std::string path_;
  std::shared_ptr<::arrow::Buffer> content_;
  std::vector<std::string> header_;
  std::size_t bodyPosition_ = 0;
  std::int64_t bodyLine_ = 1;
};

}  // namespace kyr::tool
