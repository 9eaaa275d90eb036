#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "files/growing/GrowingFile.h"
#include "files/pack/PackRuns.h"
#include "safe/BatchDigests.h"
#include "safe/ContentName.h"
#include "safe/ContentRows.h"
#include "safe/SpilledRuns.h"
#include "schema/ContentSummary.h"

namespace kyr::parquet {

/// Rows that more rows follow. They gather in memory and go to disk batch by batch. The first rows
/// are in the content's own file. Rows that left memory before they made up a batch may follow them
/// in packs. The last rows are in memory.
///
/// The batch that was written last stays in memory until the next rows come: parts that follow one
/// chunk behind are compared with memory then.
class GrowingRows final : public ContentRows {
 public:
  /// \param name  outlives the object
  GrowingRows(ContentName& name, const SampleSchema& schema, std::size_t width,
              const AskedCodec& codec);
  ~GrowingRows() override;

  std::uint64_t count() override { return end(); }
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

  /// Whether the row of a flat column is in memory, and has these bytes.
  template <std::size_t kWidth>
  bool hasRow(std::uint64_t row, const void* bytes) const {
    const std::uint64_t at = row - memoryStart_;  // very large for rows before
    if (at >= memory_.rows()) return false;
    return std::memcmp(memory_.values() + at * kWidth, bytes, kWidth) == 0;
  }

  /// Adds rows at the end. Writes the batches that are due before.
  /// \param batchRows  rows of a batch; 0 for as many as the store's options say
  /// \throws std::exception  if that fails; nothing is added then, and the call may be repeated
  void append(const RowSlice& rows, std::size_t batchRows);
  /// How many rows of a flat column append() would only copy, one by one or at once; 0 for others.
  std::size_t spareRows(std::size_t batchRows) const;
  /// Does what append() and finish() do, for an object without rows. Rows go to disk from the
  /// memory of the caller.
  std::unique_ptr<ContentRows> finishWith(const RowSlice& rows);

  /// Waits until all batches are on the disk.
  void sync();

  /// Takes all rows out of memory, after writing those that are not on disk to the content's file.
  void spill();
  /// Whether there are too few of those for a batch of that file.
  bool maySpillToPack() const { return isSmall(unspilled()); }
  /// Bytes of memory that the rows take, filled or not.
  std::size_t memoryBytes() const { return bytes_; }

  // What GrowingPacks asks, which takes the rows between two flushes, and those that leave memory.

  const SampleSchema& sampleSchema() const { return memory_.schema(); }
  /// Rows that are in memory, and perhaps in the pack of the flushes, but nowhere else.
  PackRun unspilled() const { return {name_.id(), safeRows_, end() - safeRows_}; }
  /// Those of them that are in no pack.
  PackRun unpacked() const;
  /// Those of them that are in a pack.
  PackRun packed() const;
  RowSlice slice(const PackRun& run) const {
    return slice(run.first, static_cast<std::size_t>(run.count));
  }
  /// Rows that are in memory, or left it.
  HeldRows held(const PackRun& run) const;
  /// Notes that the rows before \p end are in pack \p number.
  void notePacked(std::uint64_t end, int number);
  /// Whether the pack must say whose content this is, because no file does.
  bool needsNotes(int number) const { return !disk_ && packNumber_ != number; }
  std::shared_ptr<const ::arrow::KeyValueMetadata> notes() const;
  /// Rows that are in packs, and left memory.
  const SpilledRuns& spilledRuns() const { return runs_; }
  /// Notes a run of them, and takes its rows out of memory.
  void noteSpilled(SpilledRun run);
  /// Takes the rows out of memory that are in the file or left it before.
  void dropSpilled();
  /// Writes them to the content's file as far as they make up full batches.
  /// \return their bytes, about
  std::size_t writeSpilledBatches();
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

  std::uint64_t end() const { return memoryStart_ + memory_.rows(); }
  std::size_t unwritten() const { return static_cast<std::size_t>(end() - safeRows_); }
  bool mayHaveBatch(std::size_t batchRows) const;
  // Whether rows in memory are too few for a batch of the content's file.
  bool isSmall(const PackRun& run) const;
  // Rows of a batch like those that are not in the file.
  std::size_t lengthOfBatch() const;
  void writeFullBatches(std::size_t batchRows);
  void writeAll();
  // Writes the first rows that are not in the file.
  void writeRows(std::size_t count);
  // Notes that the first rows that were in memory only are on disk.
  void noteSafe(const RowSlice& rows);
  void createFile();
  // Closes the descriptor until the next batch if there are too many.
  void spareDescriptor();
  // Removes the first rows from memory.
  void dropFront(std::size_t rows, std::size_t batches);
  // Tells the store how much memory the rows take now.
  void countMemory();

  // What each append needs comes first; see Part.
  SharedStore& store_;
  const SafeStorage& options_;  // the store's
  std::uint64_t safeRows_ = 0;  // all before are in the file, or in packs for good
  std::uint64_t memoryStart_ = 0;
  std::size_t bytes_ = 0;         // of the memory, as the store has counted it
  std::uint64_t packedRows_ = 0;  // all before are in a pack or in the file
  int packNumber_ = -1;           // the pack that has the last of them
  bool waits_ = false;
  RowStore memory_;
  ContentName& name_;
  std::size_t width_;
  AskedCodec codec_;
  std::uint64_t fileRows_ = 0;
  SpilledRuns runs_;      // of the rows from there to safeRows_
  BatchDigests digests_;  // this and the next are of the safe rows
  std::optional<ContentSummarizer> summary_;
  std::optional<OnDisk> disk_;  // from the first batch on
};

}  // namespace kyr::parquet
