#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

/// How raw samples divide into rows, and how rows become columns. Chunks that are formatted one by
/// one and rows that are gathered first share this code.
namespace kyr::parquet {

/// The form of a data column: numbers, lists of numbers, or bytes.
enum class ColumnKind { flat, list, blob, unsupported };

/// A schema of schemaBuilder without a time column, taken apart.
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

/// Whether such columns make samples: numbers, lists of numbers or blobs, with shapes or without.
bool makesSamples(const SampleSchema& schema);

/// Bytes of an element; 1 for blobs, whose elements are their bytes.
std::size_t elementBytes(const SampleSchema& schema);

/// The product of the extents: 1 without extents, and the largest number if the product is larger.
std::size_t shapeElements(const std::uint64_t* extents, std::size_t count);
inline std::size_t shapeElements(const std::vector<std::uint64_t>& extents) {
  return shapeElements(extents.data(), extents.size());
}

/// The offsets of the rows of \p count elements with the given dimensions; empty without
/// dimensions.
/// \throws std::invalid_argument for more elements than 32-bit offsets can count
std::vector<std::int32_t> rowOffsets(std::size_t count,
                                     const std::vector<std::vector<std::uint64_t>>& dimensions);
/// The offsets of rows of the given sizes.
/// \throws std::invalid_argument also for a negative size
std::vector<std::int32_t> rowOffsets(const std::vector<int>& sizes);

/// \throws std::invalid_argument if the offsets descend, or lie outside of 0 to \p limit
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

/// A table over the buffers, which it shares. Empty if the schema's data column cannot be made of
/// them.
/// \throws std::invalid_argument if the columns differ in length or from the schema
std::shared_ptr<::arrow::Table> assembleTable(const SampleSchema& schema,
                                              const SampleBuffers& buffers);

}  // namespace kyr::parquet
