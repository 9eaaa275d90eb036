#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"
#include "kyr/recording/RecordingInfo.h"

namespace kyr::recording {

struct RecoveredSignal : SignalDescription {
  std::uint64_t rowsKept = 0;
  std::uint64_t rowsLost = 0;  ///< rows that the last flush acknowledged and that are gone
  /// Rows that were kept although they lie behind the last line of a damaged journal.
  std::uint64_t rowsUnacknowledged = 0;
  std::optional<double> secondsLost;  ///< [s] by the signal's times; empty if they are lost as well
};

struct RecoveredFile {
  int storageId = 0;
  std::uint64_t bytesCut = 0;  ///< behind the rows that are kept
};

/// \brief What became of a recording that was not finished.
struct KYR_PARQUET_EXPORT RecoveryResult {
  bool wasComplete = false;              ///< there was nothing to do
  std::vector<RecoveredSignal> signals;  ///< by ascending signal id
  std::vector<RecoveredFile> filesCut;
  std::vector<std::string> notes;  ///< what else was lost or had to be guessed, a sentence each

  /// \brief Whether everything that was acknowledged is there, as it was.
  bool hasLosses() const;
};

/// \brief Make a recording of a folder whose writer ended before LiveRecording::finish(), or whose
/// recording.json is damaged or missing.
///
/// Each signal gets the rows that the last flush acknowledged, or as many of them as are left.
/// Where the end of the journal is damaged, it also gets the whole batches behind, if nobody else
/// can own them. If nothing tells of flushes, it gets what its files hold. Times and samples are
/// cut to the shorter of the two; samples whose times are lost are kept without times. Without
/// descriptions, signals are made of the files as far as these tell whose they are.
///
/// Every batch of a file that grew is compared with its checksum, and every other file with the one
/// that a damaged recording.json still states. Files without any checksum must be readable to the
/// last page. What is damaged, or does not say for certain what it is, is copied to the folder
/// `lost` before anything changes, and a note names it.
///
/// When the call returns, verifyRecording() finds no fault. A call that throws, or is killed, may
/// be repeated.
/// \throws std::runtime_error naming the folder: it is still being recorded, there is nothing to be
///         had, or its recording.json is in order and its files are not
/// \throws std::system_error naming the file if the system cannot read one, with nothing changed,
///         or cannot write one
KYR_PARQUET_EXPORT RecoveryResult recoverRecording(const Path& folder);

}  // namespace kyr::recording
