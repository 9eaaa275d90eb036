#pragma once

#include <xxhash.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "files/ParquetTail.h"
#include "platform/ByteSource.h"
#include "platform/Digest.h"

/// The records of a growing file; GrowingFile.h describes the layout.
namespace kyr::parquet {

enum class RecordKind : std::uint32_t { batch = 0, footer = 1 };

struct RecordHeader {
  RecordKind kind = RecordKind::batch;
  std::uint64_t fileId = 0;  ///< the same random number in all records of a file
  std::uint64_t offset = 0;  ///< of the record in the file
  std::uint64_t index = 0;   ///< number of the batch record; in a footer how many there are
  std::uint64_t rows = 0;    ///< of the batch; in a footer of all batches
  std::uint64_t rowGroupBytes = 0;
  std::uint64_t metadataBytes = 0;

  std::uint64_t headerBytes() const;
  std::uint64_t dataOffset() const { return offset + headerBytes(); }
  /// Where the record ends; a footer is followed by the last eight bytes of a Parquet file.
  std::uint64_t end() const { return dataOffset() + rowGroupBytes + metadataBytes; }
};

/// Bytes before the row group of a batch record and before the metadata of a footer.
constexpr std::size_t kBatchHeaderBytes = 88;
constexpr std::size_t kFooterHeaderBytes = 80;

/// The checksum of a record: XXH3 with 128 bits of the row group, the metadata and then the header.
class RecordHash {
 public:
  RecordHash() { XXH3_128bits_reset(&state_); }
  void add(std::string_view bytes) { addToDigest(state_, bytes.data(), bytes.size()); }
  /// Most significant byte first, as the digits of a checksum are written.
  std::string digest() const;

 private:
  XXH3_state_t state_;
};

/// The header of a record as it stands in the file.
/// \param payload  of the row group and the metadata
std::string encodeHeader(const RecordHeader& header, const RecordHash& payload);

/// A footer record of the given metadata and what makes the file a Parquet file.
std::string encodeFooter(RecordHeader header, std::string_view metadata);

/// The header and the metadata of a record.
struct WholeRecord {
  RecordHeader header;
  std::string metadata;
};

/// The record at \p offset of a file that ends at \p end; none if there is no record of that kind
/// whose checksum fits. Reads the row group piece by piece.
/// \throws std::system_error if the file cannot be read
std::optional<WholeRecord> readRecord(const ByteSource& file, RecordKind kind, std::uint64_t offset,
                                      std::uint64_t end);

/// The same without a look at the row group and the checksum.
std::optional<WholeRecord> readRecordUnchecked(const ByteSource& file, RecordKind kind,
                                               std::uint64_t offset, std::uint64_t end);

/// The footer at the end of the file, if it is one of a growing file and its checksum fits.
std::optional<WholeRecord> readFooter(const ByteSource& file, std::uint64_t end);

}  // namespace kyr::parquet
