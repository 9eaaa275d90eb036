#pragma once

#include <arrow/api.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Walks over the cells of one CSV column as Arrow reads it. Rows count from 0.
namespace kyr::tool {

/// Calls \p visit with each row that is not missing.
template <typename Visitor>
void forEachPresent(const ::arrow::ChunkedArray& cells, Visitor&& visit) {
  std::size_t row = 0;
  for (const auto& chunk : cells.chunks()) {
    for (std::int64_t i = 0; i < chunk->length(); ++i, ++row) {
      if (chunk->IsValid(i)) visit(row);
    }
  }
}

/// Calls \p visit with the value of each row that is not missing.
template <typename ArrayType, typename Visitor>
void forEachValue(const ::arrow::ChunkedArray& cells, Visitor&& visit) {
  for (const auto& chunk : cells.chunks()) {
    const auto& array = static_cast<const ArrayType&>(*chunk);
    for (std::int64_t i = 0; i < array.length(); ++i) {
      if (array.IsValid(i)) visit(array.Value(i));
    }
  }
}

/// The first row of a text column for which \p matches(cell, row) is true; empty cells are passed
/// over.
template <typename Predicate>
std::optional<std::int64_t> firstCell(const ::arrow::ChunkedArray& cells, Predicate&& matches) {
  std::int64_t row = 0;
  for (const auto& chunk : cells.chunks()) {
    const auto& array = static_cast<const ::arrow::BinaryArray&>(*chunk);
    for (std::int64_t i = 0; i < array.length(); ++i, ++row) {
      const std::string_view cell = array.GetView(i);
      if (!cell.empty() && matches(cell, row)) return row;
    }
  }
  return std::nullopt;
}

/// The cell at \p row of a text column.
std::string cellText(const ::arrow::ChunkedArray& cells, std::int64_t row);

std::optional<std::int64_t> firstMissing(const ::arrow::ChunkedArray& cells);

/// Whether the values do not tell what the text was: dates and the like, and numbers so large that
/// they may have been rounded.
bool hidesText(const ::arrow::ChunkedArray& cells);

/// Append the values of an int64, double or boolean column, the missing ones left out; a boolean
/// takes a byte.
void appendCells(const ::arrow::ChunkedArray& cells, std::vector<char>& bytes);

}  // namespace kyr::tool
