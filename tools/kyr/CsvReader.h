#pragma once

#include <arrow/type_fwd.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "CsvText.h"

namespace kyr::tool {

/// Called with the part that is done, from 0 to 1.
using Progress = std::function<void(double)>;

/// The cells of every column by its place in the header, each of the type that Arrow infers; only
/// an empty cell is missing.
///
/// \param asText  columns to read as binary arrays of the cells' text, an empty cell as ""
/// \throws std::runtime_error naming the line of a row with too few or too many cells
std::vector<std::shared_ptr<::arrow::ChunkedArray>> readColumns(const CsvText& text,
                                                                const std::set<std::size_t>& asText,
                                                                const Progress& progress);

/// The cells of some columns as text, by place in the header.
std::map<std::size_t, std::shared_ptr<::arrow::ChunkedArray>> readTexts(
    const CsvText& text, const std::set<std::size_t>& columns);

}  // namespace kyr::tool
