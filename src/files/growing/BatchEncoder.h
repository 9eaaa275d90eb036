#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "files/FileLayout.h"
#include "files/growing/BatchRecord.h"

namespace kyr::parquet {

/// The bytes of a Parquet file with at most one row group, whose metadata give the place that the
/// row group is meant for in another file.
class EncodedBatch {
 public:
  /// \param file  of "PAR1", row group, metadata, their length, "PAR1"
  /// \param hash  of row group and metadata
  EncodedBatch(std::string file, const RecordHash& hash);

  /// Row group and metadata.
  std::string_view payload() const;
  const RecordHash& hash() const { return hash_; }
  std::string_view metadata() const { return payload().substr(rowGroupBytes()); }
  std::size_t rowGroupBytes() const { return payload().size() - metadataBytes_; }

 private:
  std::string file_;
  std::size_t metadataBytes_ = 0;
  RecordHash hash_;
};

/// Makes batches of one schema in memory.
class BatchEncoder {
 public:
  explicit BatchEncoder(FileLayout layout) : layout_(std::move(layout)) {}

  const ::arrow::Schema& schema() const { return *layout_.schema(); }
  std::int64_t maxRows() const { return layout_.properties().max_row_group_length(); }

  /// Metadata without a row group.
  EncodedBatch encodeEmpty(const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues) const;

  /// One row group, without key-value metadata.
  /// \param offset  of the row group's first byte in the file that it is made for
  /// \throws ::parquet::ParquetException if \p table cannot be encoded
  EncodedBatch encode(const ::arrow::Table& table, std::uint64_t offset);

 private:
  FileLayout layout_;
  ColumnEncoding encoding_;
  std::size_t encodingUses_ = 0;  // before it is chosen anew
  std::size_t lastBytes_ = 0;     // of the batch before, as the next one's first guess
};

}  // namespace kyr::parquet
