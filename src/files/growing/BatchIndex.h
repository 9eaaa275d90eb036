#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kyr::parquet {

/// The row groups of a file whose Parquet metadata come batch by batch, and footers for any run of
/// them.
///
/// The row groups are kept as the bytes that stand for them in serialized metadata, about a sixth
/// of what they take when parsed, and a footer is made by copying: its cost is that of its bytes.
/// The schema, the key-value metadata and all else come from the metadata it is made from.
///
/// Whatever is no serialized Parquet metadata is a ::parquet::ParquetException; nothing has
/// changed then.
class BatchIndex {
 public:
  /// \param metadata  serialized FileMetaData, whose row groups are the first ones
  explicit BatchIndex(std::string_view metadata);

  /// Adds the row groups of \p metadata, of a file with the same schema.
  void append(std::string_view metadata);
  void removeLast() noexcept;

  std::size_t batches() const { return ends_.size(); }
  std::uint64_t rows() const { return rowEnd(batches()); }
  /// Rows before batch \p batch, which may be the number of batches.
  std::uint64_t rowStart(std::size_t batch) const { return rowEnd(batch); }
  /// The batch that holds row \p row, which there must be.
  std::size_t batchOfRow(std::uint64_t row) const;

  /// Serialized FileMetaData of \p count batches from \p first on, which there must be.
  std::string metadata(std::size_t first, std::size_t count) const;
  std::string metadata() const { return metadata(0, batches()); }
  /// At most so many bytes has metadata().
  std::size_t metadataBound() const;

 private:
  struct End {
    std::uint64_t rows = 0;  // up to and including the batch
    std::size_t bytes = 0;   // likewise, of bytes_
  };

  std::uint64_t rowEnd(std::size_t batches) const {
    return batches == 0 ? 0 : ends_[batches - 1].rows;
  }

  std::string before_;  // up to the number of rows
  std::string behind_;  // from behind the row groups on
  std::string bytes_;   // of the row groups
  std::vector<End> ends_;
};

}  // namespace kyr::parquet
