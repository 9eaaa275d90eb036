#pragma once

#include <arrow/type_fwd.h>
#include <parquet/properties.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "files/RowReader.h"
#include "files/growing/BatchEncoder.h"
#include "files/growing/BatchIndex.h"
#include "platform/DiskFile.h"

namespace kyr::parquet {

/// A Parquet file that grows batch by batch and that recoverFile() (FileRecovery.h) can make
/// complete whenever the writing stopped. A batch that was appended outlives the program; one that
/// was appended before a sync() outlives the machine as well.
///
/// Layout. Numbers are unsigned and little-endian.
///
///     "PAR1"
///     batch record 0      has no row group: the schema and the key-value metadata
///     batch record 1      the first batch
///     ...
///     footer record       if the file is published
///     u32                 length of the footer record's metadata
///     "PAR1"
///
/// A record is a header, in a batch record the bytes of one row group, and serialized Parquet
/// metadata (FileMetaData). Those of a batch record hold the schema and this one row group with
/// its offsets in the file, those of a footer record all row groups:
///
///     offset  bytes
///          0      8  8F 'K' 'Y' 'R' 'B' 'A' 'T' 0A
///          8      4  version, 1
///         12      4  0 for a batch record, 1 for a footer record
///         16      8  random number of the file, the same in all its records
///         24      8  offset of the record in the file
///         32      8  batch record: its number from 0; footer: how many batch records there are
///         40      8  rows of the batch; footer: of all batches
///         48      8  bytes of the row group; footer: 0
///         56      8  bytes of the metadata
///         64     16  XXH3 with 128 bits, seed 0, of the row group, the metadata and the 64 bytes
///                    before, in this order; most significant byte first
///         80      8  batch record only: 8F 'K' 'Y' 'R' 'R' 'O' 'W' 0A
///
/// Batch records follow each other without a gap, are never changed, and suffice to make the
/// footer. The next record is written over a footer; its bytes from 80 on then stand where the
/// footer's metadata began. 8F begins no Thrift struct, so that a file in between is refused by
/// every reader of Parquet instead of being read in part.
///
/// A file is published, and any program can read it, after each batch whose footer is at most a
/// sixteenth of what was appended since the last footer, or when there are a third more batches
/// than then, and when that is asked for. Otherwise it ends in a batch record, and other programs
/// report an error. Footers that nobody asked for are together at most a sixteenth of the batches
/// and five times the last one.
///
/// Failures of the file are a std::system_error, or a std::runtime_error for what Parquet says,
/// and name the file. The object is then as it was before the call, which may be repeated; a file
/// that was published may be so no more.
///
/// Memory: the encoded batch during a call, and between calls about a hundred bytes per column and
/// batch. One file descriptor.
class GrowingFile {
 public:
  /// A new file, published without rows. Its name is only safe from a power cut after sync() and
  /// syncDirectoryOf().
  /// \param keyValues  of the Parquet file; may be empty
  /// \throws std::system_error if there is anything of that name, which stays as it is; nothing
  ///         is left behind by other failures
  /// \throws std::invalid_argument for properties with encryption
  static std::unique_ptr<GrowingFile> create(
      const std::filesystem::path& path, const FileLayout& layout,
      const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues = nullptr);
  /// Encoded as the properties say.
  static std::unique_ptr<GrowingFile> create(
      const std::filesystem::path& path, const std::shared_ptr<::arrow::Schema>& schema,
      const std::shared_ptr<::parquet::WriterProperties>& properties,
      const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues = nullptr);

  /// Leaves the file as it is; it need not be published.
  ~GrowingFile() = default;
  GrowingFile(const GrowingFile&) = delete;
  GrowingFile& operator=(const GrowingFile&) = delete;

  /// Adds a batch, one row group. A table without rows adds none.
  /// \param publish  whether to publish in any case
  /// \throws std::invalid_argument if the table is of another schema or has more than maxRows()
  void appendBatch(const ::arrow::Table& table, bool publish = false);

  /// Makes the file complete up to the last batch.
  void publish();
  bool isPublished() const { return published_; }
  bool isFinished() const { return finished_; }

  /// Waits until all batches are on the disk. If that failed before, writes them anew first: the
  /// system does not try again by itself.
  void sync();

  /// Publishes and closes; from then on the file can only be read, if it keeps its name. Does not
  /// sync. A failure to close is told once; the file is finished all the same.
  void finish();

  /// Gives its descriptor back until it is used next; the file must keep its name.
  void suspend();

  std::uint64_t rowCount() const { return index_.rows(); }
  std::size_t batchCount() const { return index_.batches(); }
  /// \throws std::out_of_range
  std::uint64_t batchRows(std::size_t batch) const;
  /// What a batch may have at most.
  std::int64_t maxRows() const { return encoder_.maxRows(); }
  /// All that was ever written of footers.
  std::uint64_t footerBytes() const { return footerBytes_; }

  /// As RowReader::read(), of all batches.
  std::shared_ptr<::arrow::Table> read(
      std::uint64_t first, std::uint64_t count,
      const std::optional<std::vector<int>>& columns = std::nullopt);

  /// Null if there are none.
  std::shared_ptr<const ::arrow::KeyValueMetadata> keyValueMetadata() const;

 private:
  GrowingFile(std::shared_ptr<DiskFile> file, BatchEncoder encoder, const EncodedBatch& opening);

  void checkBatch(const ::arrow::Table& table) const;
  void requireGrowing() const;
  void writeRecord(const EncodedBatch& batch, std::uint64_t rows, bool publish);
  std::string footer(std::uint64_t offset, std::uint64_t records) const;
  // Puts \p pieces behind the batch records and ends the file there; cuts it back if that fails.
  void replaceTail(const std::vector<std::string_view>& pieces);
  void noteFooter(std::size_t bytes);
  void rewriteUnsynced();

  std::shared_ptr<DiskFile> file_;  // null once finished, until something is read
  BatchEncoder encoder_;
  BatchIndex index_;
  std::optional<RowReader> reader_;
  std::uint64_t fileId_;
  std::uint64_t records_ = 0;
  std::uint64_t recordsEnd_;
  std::uint64_t fileEnd_;               // the file has at most so many bytes
  std::uint64_t bytesSinceFooter_ = 0;  // of batch records
  std::uint64_t recordsAtFooter_ = 0;
  std::uint64_t footerBytes_ = 0;
  std::uint64_t syncedEnd_ = 0;
  bool syncFailed_ = false;
  bool published_ = false;
  bool finished_ = false;
  std::filesystem::path path_;
};

}  // namespace kyr::parquet
