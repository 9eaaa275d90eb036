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
/// A row group is kept as its bytes in the serialized metadata, about a sixth of the memory that it
/// takes when parsed. A footer is made by copying these bytes. The schema, the key-value metadata
/// and everything else come from the metadata that the index was made from.
///
/// Bytes that are no serialized Parquet metadata are a ::parquet::ParquetException; nothing has
/// changed then.
class BatchIndex {
 public:
  struct Group;

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
  /// The serialized metadata of one batch's row group.
  std::string_view groupBytes(std::size_t batch) const;
  /// No less than the size of metadata().
  std::size_t metadataBound() const;

 private:
  // Where a batch ends.
  struct End {
    std::uint64_t rows = 0;
    std::size_t bytes = 0;  // in bytes_
  };

  void append(const std::vector<Group>& groups);
  std::uint64_t rowEnd(std::size_t batches) const {
    return batches == 0 ? 0 : ends_[batches - 1].rows;
  }

  std::string before_;  // up to the number of rows
  std::string behind_;  // from behind the row groups on
  std::string bytes_;   // of the row groups
  std::vector<End> ends_;
};

}  // namespace kyr::parquet
