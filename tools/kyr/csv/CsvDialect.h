#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kyr::tool {

/// What becomes of a row with another number of cells than the header.
enum class RaggedRows {
  refuse,
  pad,   ///< cells that are not there count as empty; empty ones too many are left out
  stop,  ///< the text ends before it
};

/// How a CSV text is written.
struct CsvDialect {
  char delimiter = ',';  ///< a blank stands for any number of them
  char quote = '"';
  char decimalMark = '.';
  std::vector<std::string> commentPrefixes;  ///< a line that begins with one of them is no row
  RaggedRows ragged = RaggedRows::refuse;

  /// Texts that stand for no value, besides empty cells and the usual ones.
  std::vector<std::string> missing;
};

/// Whether the user named the text as one that stands for no value. It is empty otherwise.
bool isNamedMissing(const CsvDialect& dialect, std::string_view text);

/// Whether a cell of numbers holds none: it is empty, or says so, such as NA.
bool isMissing(const CsvDialect& dialect, std::string_view text);

}  // namespace kyr::tool
