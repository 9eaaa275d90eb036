#pragma once

#include <parquet/metadata.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>

#include "files/growing/BatchIndex.h"
#include "files/growing/BatchRecord.h"
#include "platform/ByteSource.h"

namespace kyr::parquet {

/// A footer for the batches of \p index.
/// \param offset  place of the footer in the file
/// \param records  number of records before it
std::string footerOf(const BatchIndex& index, std::uint64_t fileId, std::uint64_t offset,
                     std::uint64_t records);

/// The batches of a growing file (GrowingFile.h), for those who do not write it.
struct GrowingRecords {
  BatchIndex index;
  std::uint64_t fileId = 0;  ///< the random number that all records have
  std::uint64_t count = 0;   ///< batch records; the first one has no rows
  std::uint64_t end = 0;     ///< where the next record begins
  bool isPublished = false;  ///< whether a footer says the same, so that any program can read it

  /// The footer record that belongs behind the batch records.
  std::string footer() const;
};

/// Which batch records are taken.
struct RecordLimits {
  static constexpr std::uint64_t kAll = std::numeric_limits<std::uint64_t>::max();

  std::uint64_t end = 0;            ///< where the file ends
  std::uint64_t maxRows = kAll;     ///< together they have no more rows
  std::uint64_t wantedRows = kAll;  ///< once they have so many rows, no more are looked for
  /// Whether their checksums are compared. Otherwise only headers and metadata are read.
  bool checks = true;
  /// Called with each batch record that is taken; may be empty.
  std::function<void(const WholeRecord&)> taken = {};
};

/// The batches that the footer names; none if the file does not end in a footer whose checksum
/// fits.
/// \throws std::system_error if the file cannot be read
std::optional<GrowingRecords> recordsFromFooter(const ByteSource& file, std::uint64_t end);

/// The batches from the start of the file up to the first record that is missing, damaged or beyond
/// the limits; none without the first record.
/// \throws std::system_error if the file cannot be read
std::optional<GrowingRecords> recordsFromStart(const ByteSource& file, const RecordLimits& limits);

/// Adds the batches that follow.
/// \throws std::system_error if the file cannot be read
void readOn(GrowingRecords& records, const ByteSource& file, const RecordLimits& limits);

/// The bytes of a row group: from the first byte of its first column chunk on.
struct ByteSpan {
  std::uint64_t from = 0;
  std::uint64_t to = 0;
};
/// \throws ::parquet::ParquetException if they are told to lie where no file has bytes
ByteSpan bytesOf(const ::parquet::RowGroupMetaData& group);

}  // namespace kyr::parquet
