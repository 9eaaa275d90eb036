#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "files/growing/GrowingFile.h"
#include "files/pack/PackRuns.h"
#include "safe/OpenFiles.h"
#include "schema/RowStore.h"

namespace kyr::parquet {

class GrowingRows;
class SharedStore;

/// The growing packs of a store: they take the rows that contents have got since the last flush, as
/// long as these are few. All contents of a schema share a pack, in which a flush is one batch, one
/// write and one sync, whatever the number of contents.
///
/// The rows stay in memory, too, until they make up a batch of the content's own file, or the
/// content is finished. Nothing is read from a pack but after a crash, and by those who read along.
/// A pack most of whose rows are in other files by now is replaced by one that has the others only.
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
  void write();
  /// Waits until all batches are on the disk.
  void sync();

 private:
  struct Waiting {
    PackRun run;
    GrowingRows* rows;
  };
  // The pack of a schema.
  struct Pack {
    int number = 0;
    std::filesystem::path path;
    std::unique_ptr<GrowingFile> file;
    std::shared_ptr<::arrow::Schema> schema;
    RowStore gathered;  // of the batch that is due
    std::uint64_t bytes = 0;
    std::uint64_t checkedBytes = 0;  // when it was last found that the pack is needed
    bool isSynced = true;
    DescriptorCount descriptor = OpenFiles::countGrowing();

    Pack(const SampleSchema& contents, std::size_t width) : gathered(contents, width) {}
  };

  std::unique_ptr<Pack>& packOf(const GrowingRows& rows);
  std::unique_ptr<Pack> create(const SampleSchema& contents, std::size_t width);
  // Writes the rows of contents of one schema, batch by batch.
  void write(Pack& pack, std::vector<Waiting>& waiting);
  void writeBatch(Pack& pack, const std::vector<Waiting>& batch);
  void replaceIfMostlyUnneeded(std::unique_ptr<Pack>& pack);

  SharedStore& store_;
  std::vector<GrowingRows*> waiting_;
  std::map<std::string, std::unique_ptr<Pack>> packs_;  // by the schema's text
  std::unordered_map<const ::arrow::Schema*, std::unique_ptr<Pack>*> known_;
  std::vector<std::shared_ptr<::arrow::Schema>> schemas_;  // of known_, which stay alive
  int next_ = 0;
};

}  // namespace kyr::parquet
