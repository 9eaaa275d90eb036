#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "csv/CsvRecords.h"

namespace kyr::tool {

/// A cell that a message names.
struct CsvPlace {
  std::int64_t line = 0;  ///< of the file, at which its row begins
  std::string cell;
};

/// Which cells of a column decide what is said of it; empty ones do not count.
struct CellReview {
  std::optional<CsvPlace> first;
  std::optional<CsvPlace> firstNoDouble;
  std::optional<CsvPlace> firstNoUInt64;
  bool hasFraction = false;  ///< whether a cell is no integer, by its characters
};

/// Looks at the cells of some columns as texts, row by row: slow, for what is rare.
///
/// \param places  of the columns in a row
/// \param isDone  whether nothing more needs to be known of a column
std::map<std::size_t, CellReview> reviewCells(
    CsvRecordScanner rows, const std::vector<std::size_t>& places,
    const std::function<bool(const CellReview& review)>& isDone);

/// The row \p row, from 0.
CsvRecord recordAt(CsvRecordScanner rows, std::uint32_t row);

/// The cell of a row.
CsvPlace placeIn(const CsvRecord& record, std::size_t place);

}  // namespace kyr::tool
