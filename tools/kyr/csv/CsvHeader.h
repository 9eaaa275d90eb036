#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "csv/CsvLayout.h"
#include "csv/CsvOptions.h"
#include "csv/TimeForm.h"
#include "kyr/parquet/SignalTypes.h"

namespace kyr::tool {

/// A column that becomes a signal.
struct CsvColumn {
  std::size_t place = 0;  ///< in the row, from 0
  int id = 0;             ///< number among the columns without the time
  std::string name;       ///< no other column has it
  std::string unit;
  KYRSignalDataType type = Double;
  bool isGiven = false;  ///< whether the user gave the type
};

/// What the columns of a CSV text are.
struct CsvHeader {
  std::optional<std::size_t> timePlace;  ///< none if rows are numbered
  std::string timeName;
  TimeForm timeForm;
  std::size_t width = 0;           ///< number of columns
  std::vector<CsvColumn> columns;  ///< without the time
  std::vector<std::string> notes;  ///< one sentence each on what the user may not expect
};

/// Finds the time column, and names, units and given types of the others.
/// \param source  what error texts call the text
/// \throws std::runtime_error if a column that the options name is missing, UsageError for wrong
///         types
CsvHeader describeColumns(const std::string& source, const CsvLayout& layout,
                          const CsvOptions& options);

}  // namespace kyr::tool
