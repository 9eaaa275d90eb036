#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "csv/CsvCells.h"

namespace kyr::tool {

/// From this magnitude on numbers that look like integers may not fit int64.
constexpr double kHuge = 9223372036854775808.0;

/// Empties it, for a column that is read from \p kind on.
void clear(CellKind kind, CellValues& cells);

/// Reads some columns of a block, as Arrow's reader does. Sets the number of rows, too.
///
/// \param columns  their places
void readWithArrow(std::string_view text, const std::vector<CellPlan>& plans,
                   const std::vector<std::size_t>& columns, BlockValues& values);

}  // namespace kyr::tool
