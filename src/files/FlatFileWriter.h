#pragma once

#include <arrow/io/interfaces.h>
#include <arrow/type_fwd.h>
#include <parquet/metadata.h>

#include <cstdint>
#include <memory>

#include "files/FlatFormat.h"

namespace kyr::parquet {

/// Writes numeric columns without encoding or codec, straight from the memory of the tables: the
/// bytes are those that parquet::arrow::FileWriter writes (for columns with nulls, equivalent
/// ones). Arrow's writer makes a level for every value and encodes it, which takes longer than to
/// write the value.
///
/// Like that writer it takes nothing more once a write failed.
class FlatFileWriter {
 public:
  /// \param sink  at its position 0; is not closed here
  FlatFileWriter(std::shared_ptr<const FlatFormat> format,
                 std::shared_ptr<::arrow::io::OutputStream> sink);
  ~FlatFileWriter();

  const ::arrow::Schema& schema() const { return format_->schema(); }

  /// Adds row groups of at most \p groupRows rows, or of Parquet's own limit.
  ::arrow::Status write(const ::arrow::Table& table, std::int64_t groupRows);
  /// Hands small pieces that were gathered to the sink.
  ::arrow::Status flush();
  /// Writes the footer and flushes. Again, it does nothing.
  ::arrow::Status close();

 private:
  class GatheringSink;

  ::arrow::Status writeGroup(const ::arrow::Table& rows);

  std::shared_ptr<const FlatFormat> format_;
  std::unique_ptr<GatheringSink> sink_;
  std::unique_ptr<::parquet::FileMetaDataBuilder> metadata_;
  int groups_ = 0;
  bool isClosed_ = false;
};

}  // namespace kyr::parquet
