#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "files/ContentReader.h"
#include "files/RowGroupCache.h"
#include "files/growing/GrowingRecords.h"
#include "files/pack/PackRuns.h"
#include "platform/DiskFile.h"

namespace kyr::parquet {

/// What a growing pack says of a content where it first has rows of it: the notes of PartNotes.h.
/// The key of a batch's metadata is this one, a dot and the storage id.
constexpr const char* kPackNotesKey = "kyr.signals";

/// What was acknowledged by the flush whose last rows the batch has, if the pack was synced: the
/// text is the recording's own business.
constexpr const char* kPackFlushKey = "kyr.flush";

/// The name of a growing pack in a storage folder.
std::string growingPackName(int number);
/// The number in such a name.
std::optional<int> growingPackNumber(std::string_view name);

/// A growing pack that somebody else may be writing: a growing file (GrowingFile.h) of many
/// contents, whose batches say in their metadata which rows of which contents they have.
///
/// Failures are those of InputFile. One thread at a time.
class GrowingPack {
 public:
  /// \param checks  whether batches are compared with their checksums before they are taken note of
  ///        (BatchChecks::yes), or before their rows are handed out (no), unless \p readChecks is
  ///        off
  /// \return null if the file is no growing pack, or has no sound first record
  static std::unique_ptr<GrowingPack> open(std::shared_ptr<const DiskFile> file, BatchChecks checks,
                                           BatchChecks readChecks,
                                           std::shared_ptr<RowGroupCache> cache);

  /// Takes note of batches that the pack got meanwhile, up to the first that is not sound.
  void refresh();

  const DiskFile& file() const { return *file_; }
  const PackIndex& index() const { return index_; }
  const std::shared_ptr<ContentFile>& content() const { return content_; }
  /// The notes on contents, by storage id.
  const std::map<int, std::string>& notes() const { return notes_; }
  /// What the last batch says that says something of a flush; empty if none does.
  const std::string& lastFlush() const { return lastFlush_; }
  /// The bytes from the start on of the records that were taken note of.
  std::uint64_t soundBytes() const { return records_->end; }

 private:
  GrowingPack(std::shared_ptr<const DiskFile> file, BatchChecks checks)
      : file_(std::move(file)), checks_(checks) {}

  RecordLimits limits();
  void take(const WholeRecord& record);

  std::shared_ptr<const DiskFile> file_;
  BatchChecks checks_;
  std::shared_ptr<GrowingRecords> records_;
  PackIndex index_;
  std::map<int, std::string> notes_;
  std::string lastFlush_;
  std::shared_ptr<ContentFile> content_;
  bool isBroken_ = false;  // a record that does not say which rows it has was found
};

}  // namespace kyr::parquet
