#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "files/RowReader.h"
#include "files/growing/BatchIndex.h"
#include "platform/DiskFile.h"

/// Growing files (GrowingFile.h) that another process wrote or is writing.
namespace kyr::parquet {

struct RecoveryReport {
  /// Whether the file is complete now. If not, there is nothing to be had: it is no growing file, or
  /// one without its first record. It was left as it is then.
  bool isComplete = false;
  bool wasComplete = false;  ///< it was already, and was left as it is
  std::uint64_t rowsKept = 0;
  std::uint64_t batchesKept = 0;
  std::uint64_t bytesCut = 0;  ///< behind the last batch that was kept
};

/// Makes a growing file complete up to the last batch before which nothing is missing or damaged,
/// and syncs it. Reads the whole file, because after a power cut anything that was not synced may
/// be damaged, also before the end. Batches behind damage are cut off: their rows would move. The
/// file must not be written by anybody else.
/// \param maxRows  batches are kept as long as they have no more rows together
/// \param aside  where to copy the file before whole batches behind damage are cut off; empty for
///        nowhere
/// \throws std::system_error if it cannot be read or written; may be repeated then
RecoveryReport recoverFile(const std::filesystem::path& path,
                           std::uint64_t maxRows = std::numeric_limits<std::uint64_t>::max(),
                           const std::filesystem::path& aside = {});

/// A growing file as it was when it was opened. It may go on growing.
class GrowingFileView {
 public:
  GrowingFileView(std::shared_ptr<const DiskFile> file, BatchIndex index, bool complete);

  std::uint64_t rowCount() const { return index_.rows(); }
  std::size_t batchCount() const { return index_.batches(); }
  /// Rows before batch \p batch, which may be the number of batches.
  std::uint64_t rowStart(std::size_t batch) const { return index_.rowStart(batch); }
  /// Whether it was published, so that any program could have read the same.
  bool wasComplete() const { return complete_; }
  /// Null if there are none.
  std::shared_ptr<const ::arrow::KeyValueMetadata> keyValueMetadata() const;

  /// As RowReader::read().
  std::shared_ptr<::arrow::Table> read(
      std::uint64_t first, std::uint64_t count,
      const std::optional<std::vector<int>>& columns = std::nullopt);

 private:
  BatchIndex index_;
  bool complete_;
  RowReader reader_;
};

/// Opens a growing file that another process may be writing. Takes the batches from the footer if
/// there is one; otherwise reads all records and takes those that are whole, so that a batch just
/// being written is left out.
/// \throws std::runtime_error if it is no growing file, or one whose first record is not yet there
GrowingFileView openGrowingFile(const std::filesystem::path& path);

}  // namespace kyr::parquet
