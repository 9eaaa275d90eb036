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

/// The bytes of a Parquet file with at most one row group. The offsets in its metadata are those
/// that the row group will have in another file.
class EncodedBatch {
 public:
  /// \param file  "PAR1", the row group, the metadata, their length, "PAR1"
  /// \param hash  of the row group and the metadata
  EncodedBatch(std::string file, const RecordHash& hash);

  /// The row group and the metadata.
  std::string_view payload() const;
  const RecordHash& hash() const { return hash_; }
  std::string_view metadata() const { return payload().substr(rowGroupBytes()); }
  std::size_t rowGroupBytes() const { return payload().size() - metadataBytes_; }

 private:
  std::string file_;
  std::size_t metadataBytes_ = 0;
  RecordHash hash_;
};

/// Encodes batches of one schema in memory.
class BatchEncoder {
 public:
  explicit BatchEncoder(FileLayout layout) : layout_(std::move(layout)) {}

  const ::arrow::Schema& schema() const { return *layout_.schema(); }
  std::int64_t maxRows() const { return layout_.properties().max_row_group_length(); }

  /// A batch without a row group.
  EncodedBatch encodeEmpty(const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues) const;

  /// A batch of one row group.
  /// \param offset  of the row group's first byte in the file that it is made for
  /// \param keyValues  of the batch; may be null
  /// \throws ::parquet::ParquetException if \p table cannot be encoded
  EncodedBatch encode(const ::arrow::Table& table, std::uint64_t offset,
                      const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues = nullptr);

 private:
  FileLayout layout_;
  ColumnEncoding encoding_;
  std::size_t encodingUses_ = 0;  // how often it is used before another one is chosen
  std::size_t lastBytes_ = 0;     // of the batch before; the next one is expected to be as large
};

}  // namespace kyr::parquet
