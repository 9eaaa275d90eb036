#pragma once

#include <map>
#include <string>
#include <vector>

#include "kyr/recording/LiveReader.h"
#include "print/SampleTable.h"

namespace kyr::tool {

/// "recording..." while it is being written, else "not finished: kyr recover FOLDER".
std::string stateOf(const recording::LiveRecordingInfo& live, const std::string& folder);

/// What a recording that is being written holds, as if it were saved. Time spans are those of the
/// first and the last row.
recording::RecordingInfo recordingInfoOf(recording::LiveReader& reader);

/// Prints the rows of a recording that may be growing.
class LiveCat {
 public:
  LiveCat(std::string folder, std::vector<recording::SignalInfo> signals, const Window& window)
      : folder_(std::move(folder)), signals_(std::move(signals)), window_(window) {}

  /// What was flushed since the last time.
  void print(Output& out, recording::LiveReader& reader);

  /// What came with the finishing.
  void printFinished(Output& out);

  /// Prints rows as they are flushed, until the recording is finished.
  /// \throws std::runtime_error if it is not, and its writer has gone
  void follow(Output& out, recording::LiveReader& reader);

 private:
  void print(Output& out, const SampleTable::Load& load);

  std::string folder_;
  std::vector<recording::SignalInfo> signals_;
  Window window_;
  std::map<int, std::size_t> printed_;  // samples by signal
  bool hasHeader_ = false;
};

}  // namespace kyr::tool
