#pragma once

#include <cstddef>
#include <string_view>

#include "csv/CsvDialect.h"

namespace kyr::tool {

/// Some whole rows of a CSV text.
struct CsvBlock {
  std::string_view text;
  bool isUnclosed = false;  ///< whether the text ends within quotes
};

/// Cuts a CSV text into blocks of about the same size. A longer row is a block of its own. Text and
/// dialect must outlive the object.
class CsvBlockCutter {
 public:
  static constexpr std::size_t kBlockBytes = std::size_t{1} << 21U;

  CsvBlockCutter(std::string_view text, const CsvDialect& dialect)
      : text_(text), dialect_(dialect) {}

  /// Steps to the next block; false at the end.
  bool next(CsvBlock& block);

 private:
  std::size_t endOfRows(std::size_t end) const;
  std::size_t endOfQuotedRows(std::size_t wanted, bool& isUnclosed) const;

  std::string_view text_;  // the part behind the last block
  const CsvDialect& dialect_;
};

}  // namespace kyr::tool
