#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "safe/PackFile.h"

namespace kyr::parquet {

class GrowingRows;
class SharedStore;

/// The growing packs of a store. All contents of a schema share packs, in which rows of any number
/// of contents are one batch and one write.
///
/// One pack of each schema takes the rows that contents have got since the last flush, as long as
/// these are few. They stay in memory, too, until they make up a batch of the content's own file,
/// the content is finished, or memory is full. Nothing is read from this pack but after a crash,
/// and by those who read along. When most of its rows are in other files, it is replaced by one
/// that has the others only.
///
/// When memory is full, rows go to a pack that is made for them, and leave memory. As soon as such
/// rows make up a batch of their content's own file, they are copied there. Packs most of whose
/// rows are needed no more are merged to one, and so are many that are needed still: a pack has a
/// level, and 32 of one level become one of the next.
///
/// Failures are std::system_error or std::runtime_error and name the file; the rows that could not
/// be written are written by the next call.
class GrowingPacks {
 public:
  explicit GrowingPacks(SharedStore& store) : store_(store) {}

  /// Notes that a content has rows for the next write().
  void add(GrowingRows& rows) { waiting_.push_back(&rows); }
  /// Forgets a content.
  void forget(const GrowingRows& rows);

  /// Writes the rows of all contents that were added.
  /// \param flushNote  if not empty, called before the last batch, when all else that the flush
  ///        wrote was synced. Returns what the batch is to say of the flush; empty for nothing. The
  ///        batch is synced, too
  void write(const PackFile::LastNote& flushNote = {});
  /// Waits until all batches are on the disk.
  void sync();

  /// Takes the rows of contents out of memory.
  void spill(const std::vector<GrowingRows*>& contents);
  /// Copies rows that have left memory to the files of their contents, and merges packs, as far as
  /// that is due.
  /// \param bytes  no more rows are copied to files once there were so many
  void mergeSpilled(std::size_t bytes);

 private:
  struct Pack {
    std::unique_ptr<PackFile> file;  // null before the first row
    std::uint64_t checkedBytes = 0;  // when it was last found that the pack is needed
  };

  Pack& packOf(const GrowingRows& rows);
  void write(Pack& pack, std::vector<PackEntry> entries, const PackFile::LastNote& flushNote);
  void replaceIfMostlyUnneeded(Pack& pack);
  std::vector<GrowingRows*> spilledContents() const;
  // Merges packs of one schema if that is due.
  void mergePacks(const std::vector<GrowingRows*>& contents);
  // Writes rows of one schema to a new pack, which has nothing else.
  void writeSpilled(std::vector<PackEntry> entries, int level);

  SharedStore& store_;
  std::vector<GrowingRows*> waiting_;
  std::map<std::string, Pack> packs_;  // by the schema's text
  std::unordered_map<const ::arrow::Schema*, Pack*> known_;
  std::vector<std::shared_ptr<::arrow::Schema>> schemas_;  // of known_, which stay alive
  int next_ = 0;
};

}  // namespace kyr::parquet
