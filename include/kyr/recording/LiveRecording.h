#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"
#include "kyr/recording/RecordingInfo.h"
#include "kyr/recording/SignalGroup.h"

namespace kyr::recording {

struct LiveOptions {
  /// Batches, and when they are synced. `keepsFiles` is always on.
  parquet::SafeStorage storage;
  Attributes attributes = {};  ///< of the recording
};

/// \brief Rows of a signal at its end that have no partner: times without a sample, or samples
/// without a time.
struct UnpairedRows {
  int signalId = 0;
  std::string name;
  std::uint64_t times = 0;
  std::uint64_t samples = 0;
};

/// \brief What LiveRecording::finish() left out.
struct FinishReport {
  std::vector<UnpairedRows> unpaired;  ///< by ascending signal id
};

/// \brief A recording that is written where it will lie, while it grows.
///
/// What flush() acknowledged survives a crash of the process, and one of the machine if
/// `LiveOptions::storage.sync` asks for it: recoverRecording() (Recovery.h) makes a recording of
/// it. finish() makes the folder an ordinary recording; no file is copied. Others may read along
/// with RecordingReader.
///
/// Time and data of a signal should have as many rows at each flush(): a recovery, as finish(),
/// cuts them to the shorter of the two. A signal may have times alone, or samples alone.
///
/// Not copyable. One thread at a time, the pool and its signals included.
class KYR_PARQUET_EXPORT LiveRecording {
 public:
  /// \brief Start the recording \p folder, which is made; its parent must exist.
  /// \throws std::invalid_argument if an attribute is no JSON
  /// \throws std::runtime_error, std::system_error  if \p folder exists and is not empty, or cannot
  ///         be made
  explicit LiveRecording(const Path& folder, const LiveOptions& options = {});

  /// \brief Without finish(): flushes, ignores failures, and leaves a recording that can be
  /// recovered.
  ~LiveRecording();
  LiveRecording(const LiveRecording&) = delete;
  LiveRecording& operator=(const LiveRecording&) = delete;

  /// \brief The pool over the folder's storage, until finish().
  ///
  /// Signals that are made there, and not by addSignal(), are part of the finished recording, but
  /// not of a recovered one, and their samples are not checked against a description. Those that
  /// are deleted there are part of a recovered recording, but not of the finished one.
  /// \throws std::logic_error after finish()
  parquet::SignalPool& pool();

  /// \brief A new signal to append to. Without a name it is called "signal <id>".
  ///
  /// A recovery knows its description, and that it is there, from the next flush() on.
  ///
  /// The signal checks what it is given, and changes nothing if it throws:
  /// - std::invalid_argument for a `FixedDim` sample of other dimensions than the description has
  /// - std::logic_error if type or category are changed once there are samples
  /// - std::logic_error for rows after the recording was finished or destroyed
  /// \throws std::invalid_argument if there is or was a signal of that id, for an unknown type or
  ///         category, for a text that is no valid UTF-8 or longer than 65,536 bytes, and for
  ///         dimensions of more bytes than 64 bits can count
  /// \throws std::logic_error after finish()
  std::shared_ptr<parquet::StreamableSignal> addSignal(const SignalDescription& description,
                                                       KYRSignalDataType type,
                                                       KYRSignalCategory category);

  /// \brief New signals that get one number each at the same times. To be taken where there are
  /// many of them.
  /// \param type  of all samples, which are scalars
  /// \throws std::invalid_argument as addSignal(), if there are no descriptions, and for a type
  ///         that is no number; no signal is added then
  /// \throws std::logic_error after finish()
  std::shared_ptr<SignalGroup> addGroup(const std::vector<SignalDescription>& descriptions,
                                        KYRSignalDataType type);

  /// \brief Bring all rows to disk. When the call returns, they are acknowledged.
  ///
  /// SignalPool::flush() and StreamableSignal::flush() acknowledge nothing in a live recording: a
  /// recovery leaves out what is not in the last flush() of this class.
  /// \throws std::exception naming the file if one cannot be written; the rows acknowledged before
  ///         stay so, and the call may be repeated
  /// \throws std::logic_error after finish()
  void flush();

  /// \brief Finish all signals and make the folder an ordinary recording, which is on disk when the
  /// call returns, its own name included. Nothing can be appended any more.
  ///
  /// Where a streamed signal has more times than samples, or fewer, the rows behind the shorter of
  /// the two are left out.
  /// \return what was left out; from a second call on, which does nothing, the same again
  /// \throws std::exception naming the file; the call may be repeated. Until recording.json is
  ///         there, the recording is live still, with all rows, and goes on. Afterwards nothing is
  ///         missing but to remove what a finished recording does not need.
  FinishReport finish();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kyr::recording
