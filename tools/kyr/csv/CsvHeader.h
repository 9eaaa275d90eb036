#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "csv/CsvDialect.h"
#include "csv/CsvTokenizer.h"
#include "kyr/parquet/SignalTypes.h"

namespace CLI {
class App;
}

namespace kyr::tool {

/// How the user wants a CSV text to be read.
struct CsvOptions {
  CsvDialect dialect;
  std::string timeName;            ///< column of the times; empty for the first
  std::vector<std::string> types;  ///< "NAME=TYPE" each
};

/// Adds the options of CSV texts to a command.
void addCsvOptions(CLI::App& command, CsvOptions& options);

/// A column that becomes a signal.
struct CsvColumn {
  std::size_t place = 0;  ///< in the row, from 0
  int id = 0;             ///< number among the columns without the time
  std::string name;       ///< no other column has it
  std::string unit;
  KYRSignalDataType type = Double;
  bool isGiven = false;  ///< whether the user gave the type
};

/// What a header row says.
struct CsvHeader {
  std::size_t timePlace = 0;
  std::string timeName;
  std::string timeUnit;
  std::vector<CsvColumn> columns;  ///< without the time
};

/// Number of bytes of the byte order mark that begins a text; 0 if there is none.
/// \param source  what error texts call the text
/// \throws std::runtime_error if it is the mark of UTF-16
std::size_t byteOrderMarkSize(const std::string& source, std::string_view text);

/// The cells of a header row, without blanks around them.
/// \throws std::runtime_error if the row is not UTF-8, or ends within quotes
std::vector<std::string> headerCells(const std::string& source, const CsvRow& row,
                                     const CsvDialect& dialect);

/// Ends the reading of a text that has no header row.
[[noreturn]] void throwNoHeader(const std::string& source);

/// Names, units and given types of the columns.
/// \param cells  as headerCells() gives them
/// \throws std::runtime_error if a column that the options name is missing, UsageError for wrong
///         types
CsvHeader namedColumns(const std::string& source, const std::vector<std::string>& cells,
                       const CsvOptions& options);

}  // namespace kyr::tool
