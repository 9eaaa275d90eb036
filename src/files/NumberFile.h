#pragma once

#include <arrow/type_fwd.h>
#include <parquet/metadata.h>
#include <parquet/properties.h>
#include <parquet/schema.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "files/ColumnChunk.h"
#include "files/ColumnEncoding.h"

namespace kyr::parquet {

/// Writes a Parquet file of columns of numbers or of lists of numbers, each of whose chunks has an
/// encoding of its own. Levels are made only where values may be missing or make lists, and where
/// none is missing they are made without looking at values. Arrow's writer makes a level for every
/// value and encodes it, which takes longer than to write the value.
///
/// What the sink says is a ::parquet::ParquetException.
class NumberFile {
 public:
  struct Options {
    PageSize pages;
    /// Whether to mark row groups of a single float64 column whose values ascend. Values may
    /// repeat; none is a NaN. A marked row group says that it is sorted (column 0, ascending, nulls
    /// last), and its column chunk has the least and the greatest value as statistics. Readers then
    /// find the row group of a value by the metadata alone.
    bool marksAscending = false;
  };

  /// \param sink  stands at its beginning
  /// \param columns  must outlive the object
  /// \param properties  with a codec for each column that has chunks with one
  NumberFile(std::shared_ptr<::arrow::io::OutputStream> sink,
             const ::parquet::SchemaDescriptor& columns,
             std::shared_ptr<::parquet::WriterProperties> properties, const Options& options,
             std::shared_ptr<const ::arrow::KeyValueMetadata> keyValues = nullptr);
  ~NumberFile();

  /// \param values  of the columns, all of the same length
  /// \param encodings  of the columns, with the codec of the column or none; plain if empty
  void writeRowGroup(const std::vector<std::shared_ptr<::arrow::ChunkedArray>>& values,
                     const std::vector<ColumnEncoding>& encodings = {});

  /// Completes the file.
  void finish();

 private:
  void begin(bool isAscending);
  void end();

  std::shared_ptr<::arrow::io::OutputStream> sink_;
  const ::parquet::SchemaDescriptor& columns_;
  std::shared_ptr<::parquet::WriterProperties> properties_;
  Options options_;
  std::shared_ptr<const ::arrow::KeyValueMetadata> keyValues_;
  std::unique_ptr<::parquet::FileMetaData> metadata_;  // of the row groups before those of builder_
  std::unique_ptr<::parquet::FileMetaDataBuilder> builder_;
  bool isAscending_ = false;  // whether the row groups of builder_ are
  std::int16_t rowGroups_ = 0;
};

}  // namespace kyr::parquet
