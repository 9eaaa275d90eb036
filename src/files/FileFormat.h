#pragma once

#include <arrow/status.h>
#include <arrow/type_fwd.h>
#include <parquet/properties.h>
#include <parquet/schema.h>

#include <memory>

namespace kyr::parquet {

/// What files of one schema and one set of properties look like. Made once for all files that are
/// alike.
class FileFormat {
 public:
  FileFormat(std::shared_ptr<const ::arrow::Schema> schema,
             std::shared_ptr<::parquet::WriterProperties> properties);

  const std::shared_ptr<const ::arrow::Schema>& schema() const { return schema_; }
  const std::shared_ptr<::parquet::WriterProperties>& properties() const { return properties_; }
  /// Whether Parquet can write with the properties.
  const ::arrow::Status& check() const { return check_; }

  /// The columns, if NumberFile writes the files. Null for all others: columns of neither numbers
  /// nor lists of numbers, dictionaries, codecs, statistics, checksums, indexes, and what Parquet
  /// has no schema for.
  const ::parquet::SchemaDescriptor* numberColumns() const { return numberColumns_.get(); }

 private:
  std::shared_ptr<const ::arrow::Schema> schema_;
  std::shared_ptr<::parquet::WriterProperties> properties_;
  ::arrow::Status check_;
  std::shared_ptr<::parquet::SchemaDescriptor> numberColumns_;
};

}  // namespace kyr::parquet
