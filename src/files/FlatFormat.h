#pragma once

#include <arrow/type_fwd.h>
#include <parquet/properties.h>
#include <parquet/schema.h>
#include <parquet/types.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "kyr/parquet/ParquetWriterOptions.h"

namespace kyr::parquet {

/// Bytes of a value in a plain page; 0 for types whose values are no numbers of fixed width.
std::size_t physicalWidth(::parquet::Type::type type);

/// Whether a column's values are in plain pages as they are in memory, or, of small integers, as 32
/// bits.
bool isFlatColumn(const ::arrow::DataType& type, const ::parquet::ColumnDescriptor& column);

/// What files of a schema and properties look like: made once for all files that are alike.
class FlatFormat {
 public:
  /// \return empty if FlatFileWriter cannot write them: columns that are not numeric, dictionaries,
  ///         codecs, statistics, checksums, indexes, what Parquet has no schema for
  static std::shared_ptr<const FlatFormat> make(
      std::shared_ptr<const ::arrow::Schema> schema,
      std::shared_ptr<::parquet::WriterProperties> properties);

  const ::arrow::Schema& schema() const { return *schema_; }
  const std::shared_ptr<::parquet::WriterProperties>& properties() const { return properties_; }
  const ::parquet::SchemaDescriptor& descriptor() const { return *descriptor_; }

 private:
  FlatFormat() = default;

  std::shared_ptr<const ::arrow::Schema> schema_;
  std::shared_ptr<::parquet::WriterProperties> properties_;
  std::shared_ptr<::parquet::SchemaDescriptor> descriptor_;
};

/// The formats of the files of one directory that were made last; there are few different ones.
class FlatFormats {
 public:
  struct Entry {
    std::shared_ptr<const ::arrow::Schema> schema;
    std::optional<::arrow::Compression::type> codec;
    std::shared_ptr<::parquet::WriterProperties> properties;
    std::shared_ptr<const FlatFormat> format;  ///< empty where FlatFormat::make() gives none
  };

  /// \param codec  empty for that of the options
  /// \return good until the next call
  const Entry& of(const std::shared_ptr<const ::arrow::Schema>& schema,
                  const std::optional<::arrow::Compression::type>& codec);

 private:
  ParquetWriterOptions options_;
  std::vector<Entry> entries_;
};

}  // namespace kyr::parquet
