#pragma once

#include <arrow/type_fwd.h>
#include <parquet/metadata.h>
#include <parquet/properties.h>
#include <parquet/schema.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "files/ColumnEncoding.h"

namespace arrow::io {
class OutputStream;
}

namespace kyr::parquet {

/// A Parquet file of required columns of numbers, each of whose chunks has an encoding of its own.
///
/// What the sink says is a ::parquet::ParquetException.
class ColumnFile {
 public:
  /// \param sink  stands at its beginning
  /// \param columns  must outlive the object
  /// \param properties  with a codec for each column that chunks shall have one in
  ColumnFile(std::shared_ptr<::arrow::io::OutputStream> sink,
             const ::parquet::SchemaDescriptor& columns,
             const std::shared_ptr<::parquet::WriterProperties>& properties);

  /// \param values  of the columns, all of the same length
  /// \param encodings  of the columns; of codecs, that of the column or none
  void writeRowGroup(const std::vector<std::shared_ptr<::arrow::Array>>& values,
                     const std::vector<ColumnEncoding>& encodings);

  /// Completes the file.
  void finish(const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues = nullptr);

 private:
  std::shared_ptr<::arrow::io::OutputStream> sink_;
  std::unique_ptr<::parquet::FileMetaDataBuilder> metadata_;
  std::int16_t rowGroups_ = 0;
};

}  // namespace kyr::parquet
