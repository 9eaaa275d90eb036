#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "csv/CellNumbers.h"
#include "csv/CsvBlocks.h"
#include "csv/TimeForm.h"

namespace kyr::tool {

/// What the cells of a column are. A column has the first kind that fits all of its cells. Empty
/// cells fit every kind, and so do NA and the like unless the kind is text. Times are no booleans.
enum class CellKind { empty, integer, unsignedInteger, boolean, real, text };

/// How to read a column.
struct CellPlan {
  bool isRead = true;
  bool isTime = false;
  bool keepsTexts = true;              ///< whether the texts of a column of text are wanted
  const TimeForm* timeForm = nullptr;  ///< for times; null for plain seconds
  CellKind kind = CellKind::empty;     ///< earlier cells rule out the kinds before it
  std::optional<CellParser> parser;    ///< for a type that the user gave, whatever the kind
};

/// The values of one column in some rows. The struct is small because each cell
/// of a row touches another one: with 400 columns they should fit in the processor's first cache.
struct CellValues {
  CellKind kind = CellKind::empty;     ///< the first one that fits, from the kind of the plan on
  std::vector<std::uint32_t> missing;  ///< rows whose cells are empty, ascending
  std::vector<std::uint64_t> words;    ///< integers and doubles, as their bits; lengths of texts
  std::vector<char> bytes;             ///< booleans, texts, and values of a given type
  bool hadNumbers = false;             ///< in a column of texts, whether some cells are none

  /// The first row whose cell does not fit the given type, behind which nothing is read, or any
  /// kind of number.
  std::optional<std::uint32_t> misfit;
  std::optional<std::uint32_t> rounded;  ///< the first row whose cell is rounded or infinite

  const char* data() const {
    const bool areBytes = words.empty() || kind == CellKind::text;
    return areBytes ? bytes.data() : reinterpret_cast<const char*>(words.data());
  }
  /// \param width  bytes of a value
  std::size_t size(std::size_t width) const {
    if (kind == CellKind::text) return words.size();
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
  /// Whether the block was cut off before a row with another number of cells, and so ends the text.
  bool isCut = false;
  std::optional<std::pair<std::uint32_t, std::size_t>> noUtf8;  ///< row and column of such a text
  std::vector<CellValues> columns;
  TimeTexts times;
};

/// Reads the cells of a block.
/// \param plans  one for each column, of which one may have the times
/// \param values  replaced; its memory is used again
void readBlock(const CsvBlock& block, const CsvDialect& dialect, const std::vector<CellPlan>& plans,
               BlockValues& values);

}  // namespace kyr::tool
