#pragma once

#include <arrow/io/interfaces.h>
#include <arrow/result.h>
#include <arrow/type_fwd.h>
#include <parquet/arrow/writer.h>

#include <cstdint>
#include <memory>
#include <utility>

#include "files/FileFormat.h"
#include "files/FileSink.h"
#include "files/NumberFile.h"

namespace kyr::parquet {

/// Writes tables as the row groups of a Parquet file. The bytes are those that
/// parquet::arrow::FileWriter writes; for numbers with nulls and for lists, equivalent ones.
///
/// Like that writer it takes nothing more once a write failed.
class TableWriter {
 public:
  /// \param stream  is not closed here; a file that holds bytes already is an error
  static ::arrow::Result<std::unique_ptr<TableWriter>> open(
      std::shared_ptr<const FileFormat> format, std::shared_ptr<::arrow::io::OutputStream> stream);

  const ::arrow::Schema& schema() const { return *format_->schema(); }

  /// Adds row groups of at most \p groupRows rows, or of Parquet's own limit.
  ::arrow::Status write(const ::arrow::Table& table, std::int64_t groupRows);
  /// Hands small pieces that were gathered to the stream.
  ::arrow::Status flush();
  /// Whether Arrow's writer is closed. A write that fails closes it if the footer can be written.
  bool isClosed() const { return arrow_ && arrow_->metadata(); }
  /// Writes the footer and flushes. A second call does nothing.
  ::arrow::Status close();

 private:
  explicit TableWriter(std::shared_ptr<const FileFormat> format) : format_(std::move(format)) {}

  ::arrow::Status writeNumbers(const ::arrow::Table& table, std::int64_t groupRows);

  std::shared_ptr<const FileFormat> format_;
  std::shared_ptr<FileSink> sink_;       // of numbers_
  std::unique_ptr<NumberFile> numbers_;  // this one or the other
  std::unique_ptr<::parquet::arrow::FileWriter> arrow_;
  bool takesMore_ = true;  // of numbers_
};

/// Arrow's writer of a new file of \p schema, whose Parquet columns are \p columns.
/// \throws ::parquet::ParquetException
std::unique_ptr<::parquet::arrow::FileWriter> arrowWriter(
    const std::shared_ptr<::arrow::io::OutputStream>& sink,
    const std::shared_ptr<::arrow::Schema>& schema, const ::parquet::SchemaDescriptor& columns,
    const std::shared_ptr<::parquet::WriterProperties>& properties,
    const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues = nullptr);

}  // namespace kyr::parquet
