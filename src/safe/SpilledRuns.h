#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

#include "files/ContentReader.h"
#include "safe/OpenFiles.h"
#include "schema/RowStore.h"

namespace kyr::parquet {

class SharedStore;

/// A finished growing pack of rows that left memory.
///
/// The last content that needs the object destroys it. The file is removed then if nothing was
/// acknowledged since it was made, because no row that was acknowledged before is only there.
/// Otherwise it is removed at the second flush from then on.
class SpilledFile {
 public:
  /// \param bytes  of the rows in memory
  /// \param level  0, or one more than that of the packs of which 32 were merged to this one. Packs
  ///        that were merged because little of them was needed do not raise it
  SpilledFile(SharedStore& store, std::filesystem::path path, std::uint64_t bytes, int level);
  ~SpilledFile();
  SpilledFile(const SpilledFile&) = delete;
  SpilledFile& operator=(const SpilledFile&) = delete;

  ContentFile& content() { return content_; }
  std::uint64_t bytes() const { return bytes_; }
  int level() const { return level_; }

  /// Frees what reading keeps: row groups in memory and, if there are too many, the descriptor.
  void release();

 private:
  SharedStore& store_;
  std::filesystem::path path_;
  std::uint64_t bytes_;
  int level_;
  std::uint64_t acknowledged_;  // by the store when the file was made
  std::shared_ptr<DiskFile> file_;
  ContentFile content_;
  DescriptorCount descriptor_ = OpenFiles::countGrowing();
};

/// Rows of one content that follow each other in such a pack.
struct SpilledRun {
  std::shared_ptr<SpilledFile> file;
  int storageId = 0;        ///< under which they are there
  std::uint64_t first = 0;  ///< row of the content
  std::uint64_t count = 0;
  std::uint64_t row = 0;  ///< row of the pack with which they begin
  std::size_t bytes = 0;  ///< in memory

  std::uint64_t end() const { return first + count; }
};

/// The rows of a content that left memory before they made up a batch of its own file. They follow
/// the rows of that file without a gap.
class SpilledRuns {
 public:
  bool empty() const { return runs_.empty(); }
  /// The id under which the rows are in the packs.
  int storageId() const { return runs_.back().storageId; }
  std::uint64_t end() const { return runs_.empty() ? 0 : runs_.back().end(); }
  std::uint64_t rows() const { return runs_.empty() ? 0 : end() - runs_.front().first; }
  /// Bytes of all rows in memory, about.
  std::size_t bytes() const;
  /// The runs, in order.
  const std::vector<SpilledRun>& runs() const { return runs_; }

  /// Adds rows behind all others, or in place of those of some runs that follow each other.
  void add(SpilledRun run);
  /// Forgets the rows before \p row.
  void dropBefore(std::uint64_t row);

  /// Rows [from, to), which there must be.
  HeldRows read(std::uint64_t from, std::uint64_t to) const;

 private:
  std::vector<SpilledRun> runs_;
};

}  // namespace kyr::parquet
