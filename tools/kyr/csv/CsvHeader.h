#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kyr/parquet/SignalTypes.h"

namespace kyr::tool {

struct CsvOptions {
  std::string timeName;            ///< column of the times; empty for the first
  std::vector<std::string> types;  ///< "NAME=TYPE" each
};

/// A column that can be stored as a signal.
struct CsvColumn {
  std::size_t place = 0;  ///< in the header
  int id = 0;             ///< place without the time column
  std::string name;       ///< unlike those of all other columns
  std::string unit;
  KYRSignalDataType type = Double;
  bool isGiven = false;  ///< whether `type` was asked for, and does not follow from the cells
};

/// What a header row says.
struct CsvHeader {
  std::size_t timePlace = 0;
  std::string timeName;
  std::string timeUnit;
  std::vector<CsvColumn> columns;  ///< without the time; with the types that were asked for
};

/// \param file  for error texts
/// \param cells  the header row's, without blanks around them
/// \throws std::runtime_error naming the file if it has no such columns, UsageError for wrong types
CsvHeader namedColumns(const std::string& file, const std::vector<std::string>& cells,
                       const CsvOptions& options);

}  // namespace kyr::tool
