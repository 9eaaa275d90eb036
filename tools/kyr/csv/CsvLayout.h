#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "csv/CsvDialect.h"
#include "csv/CsvOptions.h"

namespace kyr::tool {

/// What the first rows of a CSV text say of all others.
struct CsvLayout {
  CsvDialect dialect;
  std::vector<std::string> names;              ///< of the columns, without blanks around them
  std::vector<std::string> units;              ///< those of a row of their own; empty without one
  std::vector<std::vector<std::string>> rows;  ///< some rows of values, without blanks around them
  std::size_t bodyPosition = 0;                ///< where the rows of values begin
  std::int64_t bodyLine = 1;                   ///< the line there
  bool isHeaderEnded = true;                   ///< whether a line end followed the header
  std::vector<std::string> notes;  ///< one sentence each on what the user may not expect
};

/// Finds names, dialect and values.
/// \param source  what error texts call the text
/// \param text  the beginning of the text, behind a byte order mark
/// \param isWhole  whether that is all
/// \throws std::runtime_error if the text has no rows, or its header is no UTF-8
CsvLayout findLayout(const std::string& source, std::string_view text, bool isWhole,
                     const CsvOptions& options);

/// Whether so much of a text is there that more of it is not worth waiting for: the names and some
/// values.
bool isEnoughForLayout(std::string_view text, const CsvOptions& options);

/// So much of the beginning of a text as findLayout() needs at most.
std::string_view sampleOf(std::string_view text);

/// Number of bytes of the byte order mark that begins a text in UTF-8; 0 if there is none.
std::size_t byteOrderMarkSize(std::string_view text);

}  // namespace kyr::tool
