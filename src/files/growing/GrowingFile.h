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

#include "files/InputFile.h"
#include "files/growing/BatchEncoder.h"
#include "files/growing/GrowingRecords.h"
#include "platform/DiskFile.h"

namespace kyr::parquet {

/// A Parquet file that grows batch by batch. Wherever the writing stops, recoverFile()
/// (FileRecovery.h) can complete the file. A batch that was appended survives a crash of the
/// program; one that was appended before a sync() also survives a crash of the machine.
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
/// metadata (FileMetaData). Those of a batch record hold the schema, this one row group with its
/// offsets in the file and key-value metadata of the batch, those of a footer record all row
/// groups:
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
/// footer's metadata began. No Thrift struct begins with 8F, so every reader of Parquet refuses a
/// file in this state instead of reading a part of it.
///
/// A published file ends in a footer, and any program can read it. A batch publishes the file if
/// the caller asks for it, if the footer is at most a sixteenth of what was appended since the last
/// footer, or if there are a third more batches than at the last footer. Otherwise the file ends in
/// a batch record, and other programs report an error. Footers that no caller asked for are
/// together at most a sixteenth of the batches and five times the last footer.
///
/// Failures of the file are a std::system_error, failures that Parquet reports a
/// std::runtime_error; both name the file. The object is then as it was before the call, which may
/// be repeated, except that a published file may no longer be published.
///
/// The object needs the memory of the encoded batch during a call, about a hundred bytes per column
/// and batch between calls, and one file descriptor.
class GrowingFile {
 public:
  /// Creates a file and publishes it without rows. The name survives a power cut only after sync()
  /// and syncDirectoryOf().
  /// \param keyValues  of the Parquet file; may be empty
  /// \throws std::system_error if the name is taken; what has the name stays as it is. After other
  ///         failures the new file is removed
  /// \throws std::invalid_argument for properties with encryption
  static std::unique_ptr<GrowingFile> create(
      const std::filesystem::path& path, const FileLayout& layout,
      const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues = nullptr);
  /// Creates a file whose batches are encoded as the properties say.
  static std::unique_ptr<GrowingFile> create(
      const std::filesystem::path& path, const std::shared_ptr<::arrow::Schema>& schema,
      const std::shared_ptr<::parquet::WriterProperties>& properties,
      const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues = nullptr);
  /// Does the same in a new file that was opened. After a failure it is left as it is.
  static std::unique_ptr<GrowingFile> createIn(
      std::shared_ptr<DiskFile> file, const FileLayout& layout,
      const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues = nullptr);

  /// Leaves the file as it is, also if it is not published.
  ~GrowingFile() = default;
  GrowingFile(const GrowingFile&) = delete;
  GrowingFile& operator=(const GrowingFile&) = delete;

  /// Appends a batch as one row group. A table without rows appends nothing.
  /// \param publish  whether to publish the file in any case
  /// \param keyValues  of the metadata in the batch's record, which no footer repeats; may be null
  /// \throws std::invalid_argument if the table has another schema or more than maxRows() rows
  void appendBatch(const ::arrow::Table& table, bool publish = false,
                   const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues = nullptr);

  /// Writes a footer behind the last batch, which completes the file.
  void publish();
  bool isPublished() const { return records_->isPublished; }
  /// From now on the file is published only where that is asked for.
  void publishOnlyWhenAsked() { publishesBatches_ = false; }

  /// Waits until all batches are on the disk. If the last sync failed, or closing the file did, it
  /// first writes again what was not synced, because the system does not try again by itself.
  void sync();

  /// Publishes and closes the file without a sync. From then on it can only be read, as long as it
  /// keeps its name. First writes again what sync() would.
  void finish();

  /// Gives the descriptor back until the file is used next. The file must keep its name.
  void suspend();

  std::uint64_t rowCount() const { return records_->index.rows(); }
  std::size_t batchCount() const { return records_->index.batches(); }
  /// \throws std::out_of_range
  std::uint64_t batchRows(std::size_t batch) const;
  /// The largest number of rows of a batch.
  std::int64_t maxRows() const { return encoder_.maxRows(); }
  /// The bytes of all footers that were written.
  std::uint64_t footerBytes() const { return footerBytes_; }

  /// Reads rows of all batches; see InputFile::read().
  std::shared_ptr<::arrow::Table> read(std::uint64_t first, std::uint64_t count,
                                       const std::vector<std::string>& columns = {});

  /// The key-value metadata of the file; null if there are none.
  std::shared_ptr<const ::arrow::KeyValueMetadata> keyValueMetadata() const;

 private:
  GrowingFile(std::shared_ptr<DiskFile> file, BatchEncoder encoder, const EncodedBatch& opening);

  void checkBatch(const ::arrow::Table& table) const;
  void requireGrowing() const;
  void writeRecord(const EncodedBatch& batch, std::uint64_t rows, bool publish);
  // Writes \p pieces behind the batch records, where the file ends then. Cuts the file back to the
  // batch records if that fails.
  void replaceTail(const std::vector<std::string_view>& pieces);
  void noteFooter(std::size_t bytes);
  void rewriteUnsynced();

  std::shared_ptr<DiskFile> file_;  // null from finish() until something is read
  BatchEncoder encoder_;
  std::shared_ptr<GrowingRecords> records_;
  std::unique_ptr<InputFile> input_;    // for reading, from the first read on
  std::uint64_t fileEnd_;               // an upper bound of the size of the file
  std::uint64_t bytesSinceFooter_ = 0;  // of batch records
  std::uint64_t recordsAtFooter_ = 0;
  std::uint64_t footerBytes_ = 0;
  std::uint64_t syncedEnd_ = 0;
  bool syncFailed_ = false;  // or closing the file did
  bool publishesBatches_ = true;
  bool finished_ = false;
  std::filesystem::path path_;
};

}  // namespace kyr::parquet
