#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "csv/CellNumbers.h"
#include "csv/CsvBlocks.h"

namespace kyr::tool {

/// What the cells of a column are. A column has the first kind that fits all of its cells. Empty
/// cells fit every kind. Times are no booleans.
enum class CellKind { empty, integer, unsignedInteger, boolean, real, text };

/// How to read a column.
struct CellPlan {
  bool isRead = true;
  bool isTime = false;
  CellKind kind = CellKind::empty;   ///< earlier cells rule out the kinds before it
  std::optional<CellParser> parser;  ///< for a type that the user gave, whatever the kind
};

/// The values of one column in some rows. Texts are not kept. The struct is small because each cell
/// of a row touches another one: with 400 columns they should fit in the processor's first cache.
struct CellValues {
  CellKind kind = CellKind::empty;     ///< the first one that fits, from the kind of the plan on
  std::vector<std::uint32_t> missing;  ///< rows whose cells are empty, ascending
  std::vector<std::uint64_t> words;    ///< integers and doubles, as their bits
  std::vector<char> bytes;             ///< booleans, and values of a given type

  /// The first row whose cell does not fit: the given type, any kind of number, or double because
  /// it is too large. Nothing after it is read, except behind numbers that are too large.
  std::optional<std::uint32_t> misfit;
  std::optional<std::uint32_t> rounded;  ///< the first row whose cell is rounded; see CellFit

  const char* data() const {
    return words.empty() ? bytes.data() : reinterpret_cast<const char*>(words.data());
  }
  /// \param width  bytes of a value
  std::size_t size(std::size_t width) const {
    return (words.size() * sizeof(std::uint64_t) + bytes.size()) / width;
  }
  bool isEmpty() const { return words.empty() && bytes.empty(); }

  /// Forgets the values, for a column that is read from \p newKind on.
  void clear(CellKind newKind);
};

/// The times of a block as texts.
struct TimeTexts {
  std::string first;
  std::string last;
  /// The first row whose time is another than the one before but has the same double.
  std::optional<std::uint32_t> indistinct;
};

/// The values of a block.
struct BlockValues {
  CsvBlock block;
  std::uint32_t rows = 0;
  std::int64_t lines = 0;              ///< number of line ends, with those in cells
  std::optional<std::string> failure;  ///< if a row has too few or too many cells; no values then
  std::vector<CellValues> columns;
  TimeTexts times;
};

/// Reads the cells of a block.
/// \param plans  one for each column, of which one has the times
/// \param values  replaced; its memory is used again
void readBlock(const CsvBlock& block, const CsvDialect& dialect, const std::vector<CellPlan>& plans,
               BlockValues& values);

}  // namespace kyr::tool
