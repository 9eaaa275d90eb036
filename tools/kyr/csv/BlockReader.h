#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "csv/CellParser.h"
#include "csv/CsvBlocks.h"

namespace kyr::tool {

/// What the cells of a column may be, in the order in which it is tried: a column is of the first
/// kind that none of its cells refuses. Empty cells refuse none.
enum class CellKind { empty, integer, boolean, date, time, timestamp, nanoseconds, real, text };

/// How a column is to be read.
struct CellPlan {
  bool isRead = true;
  CellKind kind = CellKind::empty;  ///< kinds before it were refused already
  CellParser parse = nullptr;       ///< of a given type, which no kind matters for; or none
};

/// The values of one column in some rows. Those of text, dates and the like are not kept.
struct CellValues {
  CellKind kind = CellKind::empty;      ///< the first one, from the plan's on, that fits
  std::vector<std::uint32_t> missing;   ///< rows whose cells are empty, ascending
  std::optional<std::uint32_t> misfit;  ///< row at which parse failed; nothing after it was read
  bool isHuge = false;                  ///< whether a number is 2^63 or more, or less than -2^63
  std::vector<std::uint64_t> words;     ///< int64 and double, as their bits
  std::vector<char> bytes;              ///< booleans, and values of a given type

  const char* data() const {
    return words.empty() ? bytes.data() : reinterpret_cast<const char*>(words.data());
  }
  /// \param width  bytes of a value
  std::size_t size(std::size_t width) const {
    return (words.size() * sizeof(std::uint64_t) + bytes.size()) / width;
  }
};

/// A block, taken apart.
struct BlockValues {
  CsvBlock block;
  std::uint32_t rows = 0;
  std::int64_t lines = 0;              ///< line ends, those in cells included
  std::optional<std::string> failure;  ///< if a row has too few or too many cells; no values then
  std::vector<CellValues> columns;
};

/// Arrow's reader decides what a cell is. Cells of which that is plain, such as digits, are read
/// without it; where a column has others in the block, Arrow reads that column.
///
/// \param plans  one for each column
/// \param values  replaced; its memory is used again
void readBlock(const CsvBlock& block, const std::vector<CellPlan>& plans, BlockValues& values);

}  // namespace kyr::tool
