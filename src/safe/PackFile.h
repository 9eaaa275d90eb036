#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

#include "files/growing/GrowingFile.h"
#include "files/pack/PackRuns.h"
#include "safe/OpenFiles.h"
#include "schema/RowStore.h"

namespace kyr::parquet {

class GrowingRows;
class SharedStore;

/// Rows of a content that are to be written to a pack.
struct PackEntry {
  PackRun run;
  GrowingRows* rows = nullptr;
  std::size_t bytes = 0;  ///< in memory, once they are written
};

/// A growing pack that this process writes. The destructor neither completes nor removes the file.
///
/// Failures are std::system_error or std::runtime_error and name the file.
class PackFile {
 public:
  /// Makes the file, under the next number that is free.
  /// \param next  counts the numbers
  PackFile(SharedStore& store, int& next, const SampleSchema& contents, std::size_t width);

  int number() const { return number_; }
  const std::filesystem::path& path() const { return path_; }
  const SampleSchema& contents() const { return gathered_.schema(); }
  std::size_t width() const { return gathered_.width(); }
  /// Bytes of the rows that were written.
  std::uint64_t bytes() const { return bytes_; }

  /// Called with rows that were written, and the pack's row with which they begin.
  using Noted = std::function<void(const PackEntry& entry, std::uint64_t row)>;
  /// Called before the last batch is written. Returns what the batch is to say of the flush; empty
  /// for nothing.
  using LastNote = std::function<std::string()>;
  /// Writes rows as batches of about \p batchBytes. Each batch is noted as soon as it is written,
  /// so that after a failure the call can go on with the others.
  void write(std::vector<PackEntry> entries, std::size_t batchBytes, const Noted& noted,
             const LastNote& lastNote = {});

  /// Waits until all batches are on the disk.
  void sync();
  /// Completes and closes the file.
  void finish() { file_->finish(); }

 private:
  // Writes the rows that were gathered.
  void writeBatch(const std::vector<PackEntry>& batch, const Noted& noted,
                  const std::string& flushNote);

  int number_ = 0;
  std::filesystem::path path_;
  std::shared_ptr<::arrow::Schema> schema_;
  bool isNumbers_;  // whether there is one column beside the storage ids, of numbers
  std::unique_ptr<GrowingFile> file_;
  RowStore gathered_;  // of the batch that is due
  std::uint64_t bytes_ = 0;
  bool isSynced_ = true;
  DescriptorCount descriptor_ = OpenFiles::countGrowing();
};

}  // namespace kyr::parquet
