#pragma once

#include <arrow/type_fwd.h>
#include <parquet/column_writer.h>

#include <cstdint>

#include "files/ColumnEncoding.h"

namespace kyr::parquet {

/// Writes all values, numbers of which none is missing, as one chunk of a required column and closes
/// \p pages. Plain values are handed to its sink as they lie in memory.
///
/// Where an encoding does not save what it promised, values are stored plain: a chunk is never
/// larger than a plain one by more than the headers of its pages, one for 65,536 values.
/// \param encoding  with the codec that \p pages was opened with; pages that it does not shrink are
///        left uncompressed
/// \returns the bytes of the chunk, uncompressed
/// \throws ::parquet::ParquetException as \p pages does
std::int64_t writeColumnChunk(::parquet::PageWriter& pages, const ::arrow::Array& values,
                              const ColumnEncoding& encoding);

}  // namespace kyr::parquet
