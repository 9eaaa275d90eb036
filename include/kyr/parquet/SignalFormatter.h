#pragma once

#include <arrow/type_fwd.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "kyr/parquet/SignalTypes.h"
#include "kyr/platform/export.h"

namespace kyr::parquet {

/// \brief Raw sample buffers as Arrow tables, and back.
///
/// A raw buffer holds the elements of all samples back to back, in the host's order (column-major
/// for matrices), which is kept. Numeric and binary data are wrapped, not copied: the table shares
/// the buffer, which must stay unchanged as long as the table is in use. Cheap to make per call.
class KYR_PARQUET_EXPORT SignalFormatter {
 public:
  using Dimensions = std::vector<std::vector<std::uint64_t>>;

  /// \brief Offsets and dimension columns are built in Arrow's default memory pool.
  SignalFormatter();
  /// \param pool  must outlive the tables made here
  explicit SignalFormatter(::arrow::MemoryPool* pool);

  /// \brief A table of the data column and, where \p schema has one, the dimension column.
  ///
  /// \param data  may be empty for no samples; a trailing partial element is ignored
  /// \param schema  of schemaBuilder, without a time column; its data column is called "data"
  /// \param dimensions  empty for scalars; one entry for samples that all have this shape; else one
  ///         entry per sample
  /// \param sizes  for binary and utf8 data: bytes of each sample; if empty, the samples'
  ///         dimensions say it
  /// \return an empty pointer if the data column's type cannot be made from such a buffer: a list
  ///         or binary column without shapes or sizes, or a list of binary items
  /// \throws std::runtime_error "Null data type encountered." or "Unknown data type encountered."
  /// \throws std::invalid_argument if the schema is empty, if the shapes or sizes ask for more than
  ///         the buffer holds, or if the columns would differ in length or from the schema
  std::shared_ptr<::arrow::Table> format(const std::shared_ptr<::arrow::Buffer>& data,
                                         KYRSignalDataType type,
                                         const std::shared_ptr<::arrow::Schema>& schema,
                                         const Dimensions& dimensions,
                                         const std::vector<int>& sizes);

  /// \brief A table whose rows are nested lists, one level per dimension. The innermost lists run
  /// along the first dimension.
  /// \param dimensions  the first entry is the shape of every sample; the others are ignored
  /// \param schema  of schemaBuilder::getSchemaWithDimensionsPreserved
  /// \throws as format(), and std::invalid_argument if the nesting is not the schema's
  std::shared_ptr<::arrow::Table> formatMatrixPreserveDimension(
      const std::shared_ptr<::arrow::Buffer>& data, KYRSignalDataType type,
      const std::shared_ptr<::arrow::Schema>& schema, const Dimensions& dimensions);

  /// \brief Take the samples out of a table as format() makes it. A table without a "data" column
  /// leaves \p bytes as it is.
  ///
  /// \param bytes  the samples' bytes are appended; clear it first where that is not wanted
  /// \param dimensions  one entry per row if the table has a "dimension" column, else no value
  /// \param sizes  per row its bytes (binary, utf8) or elements (lists); no value for a flat column
  /// \throws std::invalid_argument if the table is empty
  /// \throws std::runtime_error if a column holds nulls or is of a type that format() does not make
  void reconstruct(std::shared_ptr<::arrow::Table> table, std::vector<char>& bytes,
                   std::optional<Dimensions>& dimensions, std::optional<std::vector<int>>& sizes);

 private:
  ::arrow::MemoryPool* pool_;
};

}  // namespace kyr::parquet
