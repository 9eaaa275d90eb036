#include "csv/SampledType.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "csv/CellNumbers.h"
#include "csv/DialectGuess.h"

namespace kyr::tool {

namespace {

template <typename Integer>
bool isInteger(const std::string& cell) {
  Integer value = 0;
  return parseInteger(cell, value);
}

// Whether the cell holds an integer that is smaller than those that a double rounds.
bool isSmallInteger(const std::string& cell) {
  constexpr std::int64_t kEnd = std::int64_t{1} << 53U;
  std::int64_t value = 0;
  return parseInteger(cell, value) && value > -kEnd && value < kEnd;
}

bool isTruthValue(const std::string& cell) {
  bool isTrue = false;
  return parseTruthValue(cell, isTrue);
}

std::vector<std::string> valuesOf(const CsvLayout& layout, std::size_t place) {
  std::vector<std::string> cells;
  for (const std::vector<std::string>& row : layout.rows) {
    if (place < row.size() && !isMissing(layout.dialect, row[place])) cells.push_back(row[place]);
  }
  return cells;
}

}  // namespace

KYRSignalDataType sampledType(const CsvLayout& layout, std::size_t place) {
  std::vector<std::string> cells = valuesOf(layout, place);
  const auto all = [&](const auto& holds) {
    return std::all_of(cells.begin(), cells.end(), holds);
  };
  const auto isDecimal = [&](const std::string& cell) {
    return isNumberCell(cell, layout.dialect);
  };
  // Integers may be hexadecimal, too.
  const auto isText = [&](const std::string& cell) {
    return !isDecimal(cell) && !isInteger<std::int64_t>(cell) && !isInteger<std::uint64_t>(cell) &&
           !isTruthValue(cell);
  };
  if (!cells.empty() && isText(cells[0])) return ByteString;
  // A text further down is refused when its row comes.
  cells.erase(std::remove_if(cells.begin(), cells.end(), isText), cells.end());
  if (all(isSmallInteger) && all(isDecimal)) return Double;
  if (all(isInteger<std::int64_t>)) return Int64;
  if (all(isInteger<std::uint64_t>)) return UInt64;
  return all(isTruthValue) ? Boolean : Double;
}

bool isLastColumnNothing(const CsvLayout& layout) {
  return layout.names.back().empty() && valuesOf(layout, layout.names.size() - 1).empty();
}

}  // namespace kyr::tool
