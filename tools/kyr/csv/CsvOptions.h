#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "csv/CsvDialect.h"

namespace CLI {
class App;
}

namespace kyr::tool {

/// How the user wants a CSV text to be read. What is not given follows from its first lines.
struct CsvOptions {
  std::string delimiter;  ///< a character, or the name of one
  std::string decimal;
  std::string quote;
  std::string encoding;  ///< UTF-8 unless given
  std::optional<std::size_t> headerLine;
  bool hasNoHeader = false;
  std::size_t skippedLines = 0;
  std::string timeName;    ///< column of the times
  std::string timeUnit;    ///< of numbers
  std::string timeFormat;  ///< iso, clock, unix, number, or a pattern
  bool hasNoTime = false;
  std::vector<std::string> missing;
  std::string text = "store";
  std::string ragged = "refuse";
  std::vector<std::string> types;  ///< "NAME=TYPE" each

  bool storesTexts() const { return text != "skip"; }
};

/// Adds the options of CSV texts to a command.
void addCsvOptions(CLI::App& command, CsvOptions& options);

/// The dialect as far as the options give it.
/// \throws UsageError for a value that makes no sense
CsvDialect givenDialect(const CsvOptions& options);

}  // namespace kyr::tool
