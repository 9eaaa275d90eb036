#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "files/growing/GrowingFile.h"
#include "files/pack/PackRuns.h"
#include "safe/BatchDigests.h"
#include "safe/ContentName.h"
#include "safe/ContentRows.h"
#include "schema/ContentSummary.h"

namespace kyr::parquet {

/// Rows that more rows follow. They gather in memory and go to disk batch by batch.
///
/// The batch that was written last stays in memory until the next rows come: parts that follow one
/// chunk behind are compared with memory then.
class GrowingRows final : public ContentRows {
 public:
  /// \param name  outlives the object
  GrowingRows(ContentName& name, const SampleSchema& schema, std::size_t width,
              const AskedCodec& codec);
  ~GrowingRows() override;

  std::uint64_t count() override { return memoryStart_ + memory_.rows(); }
  const SampleSchema& schema() override { return memory_.schema(); }
  std::size_t width() override { return width_; }
  AskedCodec askedCodec() override { return codec_; }
  ::arrow::Compression::type codec() override;
  std::optional<HeldRows> inMemory(std::uint64_t from, std::uint64_t to) override;
  Tables read(std::uint64_t from, std::uint64_t to) override;
  const BatchDigests* digests() const override { return &digests_; }
  GrowingRows* growing() override { return this; }
  std::unique_ptr<ContentRows> flush() override;
  std::unique_ptr<ContentRows> finish() override;
  bool hasOwnFile() const override { return disk_.has_value(); }

  /// First row that is in memory; all that follow are, too.
  std::uint64_t memoryStart() const { return memoryStart_; }
  /// Rows that are in memory. Valid until the rows change.
  RowSlice slice(std::uint64_t from, std::size_t count) const {
    return memory_.slice(static_cast<std::size_t>(from - memoryStart_), count);
  }

  /// Adds rows at the end. Writes the batches that are due before.
  /// \param batchRows  rows of a batch; 0 for as many as the store's options say
  /// \throws std::exception  if that fails; nothing is added then, and the call may be repeated
  void append(const RowSlice& rows, std::size_t batchRows);
  /// Does what append() and finish() do, for an object without rows. Rows go to disk from the
  /// memory of the caller.
  std::unique_ptr<ContentRows> finishWith(const RowSlice& rows);

  /// Waits until all batches are on the disk.
  void sync();

  /// Takes rows out of memory that are in the content's file, after writing those that are not.
  void spill();
  /// Bytes of the elements in memory.
  std::size_t memoryBytes() const { return bytes_; }

  // What GrowingPacks asks, which takes the rows between two flushes.

  const SampleSchema& sampleSchema() const { return memory_.schema(); }
  /// Rows that are neither in the file nor in a pack.
  PackRun unpacked() const;
  /// Rows that are in a pack, and not in the file.
  PackRun packed() const;
  RowSlice slice(const PackRun& run) const {
    return slice(run.first, static_cast<std::size_t>(run.count));
  }
  /// Notes that the rows before \p end are in pack \p number.
  void notePacked(std::uint64_t end, int number);
  /// Whether the pack must say whose content this is, because no file does.
  bool needsNotes(int number) const { return !disk_ && packNumber_ != number; }
  std::shared_ptr<const ::arrow::KeyValueMetadata> notes() const;
  /// Notes whether the content waits for the packs to be written.
  void noteWaiting(bool waits) { waits_ = waits; }

 private:
  struct OnDisk {
    OnDisk(OwnedFile owned, std::unique_ptr<GrowingFile> grown)
        : name(std::move(owned)), file(std::move(grown)) {}

    OwnedFile name;
    std::unique_ptr<GrowingFile> file;
    DescriptorCount descriptor = OpenFiles::countGrowing();
  };

  std::size_t unwritten() const {
    return static_cast<std::size_t>(memoryStart_ + memory_.rows() - diskRows_);
  }
  bool mayHaveBatch(std::size_t batchRows) const;
  // Whether the rows since the last flush are too few for a batch of the content's file.
  bool mayGoToPack() const;
  void writeFullBatches(std::size_t batchRows);
  void writeAll();
  // Writes the first rows that are not on disk.
  void writeRows(std::size_t count);
  void createFile();
  // Closes the descriptor until the next batch if there are too many.
  void spareDescriptor();
  // Removes the first rows from memory.
  void dropFront(std::size_t rows, std::size_t batches);

  // What each append needs comes first; see Part.
  SharedStore& store_;
  const SafeStorage& options_;  // the store's
  std::uint64_t diskRows_ = 0;
  std::uint64_t memoryStart_ = 0;
  std::size_t bytes_ = 0;  // of the memory, as the store counts it
  RowStore memory_;
  ContentName& name_;
  std::size_t width_;
  AskedCodec codec_;
  BatchDigests digests_;  // this and the next are of the rows on disk
  std::optional<ContentSummarizer> summary_;
  std::optional<OnDisk> disk_;    // from the first batch on
  std::uint64_t packedRows_ = 0;  // all before are in a pack or in the file
  int packNumber_ = -1;           // the pack that has the last of them
  bool waits_ = false;
};

}  // namespace kyr::parquet
