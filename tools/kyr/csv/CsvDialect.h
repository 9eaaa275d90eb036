#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kyr::tool {

/// How a CSV text is written.
struct CsvDialect {
  char delimiter = ',';
  char quote = '"';
  char decimalMark = '.';
  std::vector<std::string> commentPrefixes;  ///< a line that begins with one of them is no row
  std::size_t headerRow = 1;                 ///< the row, 1 or more, that names the columns
};

}  // namespace kyr::tool
