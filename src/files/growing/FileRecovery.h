#pragma once

#include <cstdint>
#include <limits>
#include <string>

#include "platform/Folder.h"

/// Growing files (GrowingFile.h) whose writer ended before it finished them.
namespace kyr::parquet {

struct RecoveryReport {
  /// Whether the file is complete now, or can be made so. If not, it was left as it is: it is no
  /// growing file, or one without its first record.
  bool isComplete = false;
  bool wasComplete = false;  ///< it was complete already, and was left as it is
  /// Whether a file without its first record ends in a footer that is whole. `rowsKept` are then
  /// the rows before the first damaged batch, which can be read by that footer.
  bool hasFooter = false;
  std::uint64_t rowsKept = 0;
  std::uint64_t batchesKept = 0;
  std::uint64_t bytesCut = 0;  ///< behind the last batch that is kept
  bool losesBatches = false;   ///< whether batch records are among them
};

/// What recoverFile() would do. Changes nothing.
/// \throws std::system_error if the file cannot be read
RecoveryReport inspectFile(const Folder& folder, const std::string& name);

/// Makes a growing file complete up to the last batch before which nothing is missing or damaged,
/// and syncs it. Reads the whole file: after a power cut anything that was not synced may be
/// damaged, also before the end. Batches behind damage are cut off, because their rows would move.
/// Nobody else may write the file. If it has other names, these keep it as it is.
/// \param maxRows  batches are kept as long as they have no more rows together
/// \throws std::system_error if it cannot be read or written; the call may be repeated then
RecoveryReport recoverFile(const Folder& folder, const std::string& name,
                           std::uint64_t maxRows = std::numeric_limits<std::uint64_t>::max());

}  // namespace kyr::parquet
