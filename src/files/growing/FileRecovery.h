#pragma once

#include <cstdint>
#include <filesystem>
#include <limits>

/// Growing files (GrowingFile.h) whose writer ended before it finished them.
namespace kyr::parquet {

struct RecoveryReport {
  /// Whether the file is complete now. If not, there is nothing to be had: it is no growing file, or
  /// one without its first record. It was left as it is.
  bool isComplete = false;
  bool wasComplete = false;  ///< it was complete already, and was left as it is
  std::uint64_t rowsKept = 0;
  std::uint64_t batchesKept = 0;
  std::uint64_t bytesCut = 0;  ///< behind the last batch that was kept
};

/// Makes a growing file complete up to the last batch before which nothing is missing or damaged,
/// and syncs it. Reads the whole file: after a power cut anything that was not synced may be
/// damaged, also before the end. Batches behind damage are cut off, because their rows would move.
/// Nobody else may write the file.
/// \param maxRows  batches are kept as long as they have no more rows together
/// \param aside  where to copy the file before whole batches behind damage are cut off; empty for
///        nowhere
/// \throws std::system_error if it cannot be read or written; the call may be repeated then
RecoveryReport recoverFile(const std::filesystem::path& path,
                           std::uint64_t maxRows = std::numeric_limits<std::uint64_t>::max(),
                           const std::filesystem::path& aside = {});

}  // namespace kyr::parquet
