#pragma once

#include <arrow/type_fwd.h>
#include <parquet/schema.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kyr::parquet {

/// How a column chunk is divided into pages: a page ends behind the batch of values with which it
/// has \p bytes bytes. A batch begins where an array of the column does, and ends where a row does.
struct PageSize {
  std::int64_t batchRows;
  std::int64_t bytes;
};

/// What a page holds: runs of values, and levels that say which of them are missing and which rows
/// they make.
struct ColumnPage {
  struct Run {
    const ::arrow::Array* array;
    std::int64_t from;
    std::int64_t count;
  };

  std::int64_t entries() const { return values + missing; }

  std::vector<Run> runs;  ///< nulls included
  std::int64_t rows = 0;
  std::int64_t values = 0;   ///< nulls left out
  std::int64_t missing = 0;  ///< null values; in a column of lists, null and empty lists as well
  std::string levels;  ///< repetition levels, then definition levels, as in pages of version 2
  std::size_t repetitionBytes = 0;
};

/// Whether a column holds lists of numbers; lists and numbers may both be null.
bool isListOfNumbers(const ::parquet::ColumnDescriptor& column);

/// The definition levels of so many numbers in such lists, none of which is missing.
std::string levelsOfFullLists(std::uint64_t count);

/// Divides a column of numbers, or of lists of numbers, into pages.
/// \param width  bytes of a value in a page
/// \param visit  gets one page after the other
void forEachPage(const ::arrow::ChunkedArray& values, const ::parquet::ColumnDescriptor& column,
                 const PageSize& size, std::int64_t width,
                 const std::function<void(const ColumnPage& page)>& visit);

}  // namespace kyr::parquet
