#pragma once

#include <string_view>

#include "csv/CsvDialect.h"
#include "csv/CsvOptions.h"

namespace kyr::tool {

/// The dialect of a text: what the options give, and for the rest what fits its first rows best.
/// \param text  some whole rows
CsvDialect guessDialect(std::string_view text, const CsvOptions& options);

/// Whether a cell is a number.
bool isNumberCell(std::string_view cell, const CsvDialect& dialect);

}  // namespace kyr::tool
