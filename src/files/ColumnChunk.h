#pragma once

#include <arrow/type_fwd.h>
#include <parquet/schema.h>
#include <parquet/types.h>

#include "files/ChunkPages.h"
#include "files/ColumnPages.h"

namespace kyr::parquet {

/// Writes all values of a column of numbers, or of lists of numbers, as the data pages of \p pages.
///
/// Where an encoding does not save what it promised, values are stored plain: a chunk is never
/// larger than a plain one by more than the headers of its pages. Plain values go to the sink as
/// they lie in memory.
/// \param values  or int32 numbers that are never missing, as a single array of runs with int32
///        ends, which become repetitions of a dictionary's numbers
/// \param column  says whether values may be missing, or make lists
/// \throws std::invalid_argument if \p values are no numbers
/// \throws ::parquet::ParquetException as \p pages does
void writeColumnChunk(ChunkPages& pages, const ::arrow::ChunkedArray& values,
                      const ::parquet::ColumnDescriptor& column, const PageSize& size,
                      ::parquet::Encoding::type encoding);

}  // namespace kyr::parquet
