#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

/// How a run of raw samples divides into rows, and the columns that come of it. One code for chunks
/// that are formatted one by one and for rows that are gathered first.
namespace kyr::parquet {

/// What the data column of a schema is made of.
enum class ColumnKind { flat, list, blob, unsupported };

/// What a schema of schemaBuilder, without a time column, asks for.
struct SampleSchema {
  std::shared_ptr<::arrow::Schema> schema;
  int dataIndex = -1;       ///< column "data"; -1 if there is none
  int dimensionIndex = -1;  ///< column "dimension"; -1 if there is none
  ColumnKind kind = ColumnKind::unsupported;
  std::shared_ptr<::arrow::DataType> elementType;

  SampleSchema() = default;
  /// \throws std::invalid_argument if \p schema is empty
  explicit SampleSchema(std::shared_ptr<::arrow::Schema> schema);
};

/// Bytes of an element; 1 for blobs, whose elements are their bytes.
std::size_t elementBytes(const SampleSchema& schema);

/// Product of the extents; 1 for none, the largest number if it is larger still.
std::size_t shapeElements(const std::vector<std::uint64_t>& extents);

/// Row boundaries of \p count elements with the given dimensions: empty for no dimensions (flat).
/// \throws std::invalid_argument for more elements than 32-bit offsets can tell, or a negative size
std::vector<std::int32_t> rowOffsets(std::size_t count,
                                     const std::vector<std::vector<std::uint64_t>>& dimensions);
std::vector<std::int32_t> rowOffsets(const std::vector<int>& sizes);

/// \throws std::invalid_argument if the offsets do not ascend from 0 or more to \p limit at most
void checkRowOffsets(const std::vector<std::int32_t>& offsets, std::size_t limit);

/// The memory of the columns of a run of rows.
struct SampleBuffers {
  std::int64_t rows = 0;
  std::shared_ptr<::arrow::Buffer> elements;  ///< element values or blob bytes
  std::shared_ptr<::arrow::Buffer> offsets;   ///< int32, rows + 1; empty for a flat column
  std::int64_t dimensionRows = 0;
  std::shared_ptr<::arrow::Buffer> dimensionOffsets;  ///< int32, dimensionRows + 1
  std::shared_ptr<::arrow::Buffer> dimensionValues;   ///< uint64
};

/// A table over the buffers, which it shares; empty when the schema's data column cannot be made of
/// them.
/// \throws std::invalid_argument if the columns differ in length or from the schema
std::shared_ptr<::arrow::Table> assembleTable(const SampleSchema& schema,
                                              const SampleBuffers& buffers);

}  // namespace kyr::parquet
