#pragma once

#include <cstddef>
#include <string_view>

namespace kyr::tool {

/// Some whole rows of a CSV text.
struct CsvBlock {
  std::string_view text;
  bool isUnclosed = false;  ///< whether the text ends inside quotation marks
};

/// Cuts a CSV text into blocks of about the same size; a longer row is a block of its own.
class CsvBlockCutter {
 public:
  static constexpr std::size_t kBlockBytes = std::size_t{1} << 21U;

  explicit CsvBlockCutter(std::string_view text) : text_(text) {}

  /// Step to the next block; false at the end.
  bool next(CsvBlock& block);

 private:
  std::size_t endOfRows(std::size_t end) const;
  std::size_t endOfQuotedRows(std::size_t wanted, bool& isUnclosed) const;

  std::string_view text_;  // what is left
};

}  // namespace kyr::tool
