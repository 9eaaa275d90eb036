#pragma once

#include <string_view>
#include <vector>

#include "kyr/parquet/SignalTypes.h"

namespace kyr::tool {

/// Appends the value that \p text spells to \p bytes, in memory order; false, and nothing appended,
/// if it spells none or one that does not fit.
using CellParser = bool (*)(std::string_view text, std::vector<char>& bytes);

/// The parser for values of \p type: one that columnType() gives.
///
/// Integers may be spelled as decimal numbers of the same value ("1.0", "1e3"), booleans as true,
/// false and as the numbers 0 and 1.
CellParser cellParser(KYRSignalDataType type);

}  // namespace kyr::tool
