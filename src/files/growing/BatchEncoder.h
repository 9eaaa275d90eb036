#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "files/FileLayout.h"
#include "files/growing/BatchRecord.h"

namespace kyr::parquet {

/// The bytes of a Parquet file with at most one row group: "PAR1", the row group, the metadata,
/// their length, "PAR1".
struct BatchBytes {
  /// Bytes of the row group that lie in the memory of its table.
  struct Borrowed {
    std::size_t at;  ///< the copied bytes before them
    std::string_view bytes;
  };

  std::string copied;
  std::vector<Borrowed> borrowed;  ///< in the order of the file
  RecordHash hash;                 ///< of the row group and the metadata
};

/// Such bytes. The offsets in the metadata are those that the row group will have in another file.
/// Valid as long as the table that was encoded.
class EncodedBatch {
 public:
  explicit EncodedBatch(BatchBytes bytes);

  /// The row group and the metadata.
  std::vector<std::string_view> payload() const;
  const RecordHash& hash() const { return bytes_.hash; }
  std::string_view metadata() const;
  std::size_t rowGroupBytes() const;
  std::size_t copiedBytes() const { return bytes_.copied.size(); }

 private:
  // The end of the metadata among the copied bytes.
  std::size_t end() const { return bytes_.copied.size() - kParquetTailBytes; }

  BatchBytes bytes_;
  std::size_t metadataBytes_ = 0;
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
  std::size_t lastBytes_ = 0;     // copied of the batch before; about as many are expected next
};

}  // namespace kyr::parquet
