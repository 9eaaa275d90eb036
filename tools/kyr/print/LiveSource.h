#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kyr/recording/RecordingReader.h"
#include "print/SampleTable.h"

namespace kyr::tool {

/// "recording..." while the recording is being written, else "not finished: kyr recover FOLDER".
std::string stateOf(recording::RecordingState state, const std::string& folder);

/// Describes a recording that is being written as if it were saved. Time spans reach from the first
/// to the last row.
recording::RecordingInfo recordingInfoOf(const recording::RecordingReader& reader,
                                         const recording::LiveRecordingInfo& live);

/// Prints the rows of a recording that may be growing.
class LiveCat {
 public:
  LiveCat(std::string folder, std::vector<recording::SignalInfo> signals, const Window& window)
      : folder_(std::move(folder)), signals_(std::move(signals)), window_(window) {}

  /// Prints the rows that the reader shows beyond those that were printed before.
  void print(Output& out, const recording::RecordingReader& reader);

  /// Prints rows as they are flushed, until the recording is finished.
  /// \throws std::runtime_error if the writer has gone without finishing it
  void follow(Output& out, recording::RecordingReader& reader);

 private:
  std::string folder_;
  std::vector<recording::SignalInfo> signals_;
  Window window_;
  std::map<int, std::uint64_t> printed_;  // number of samples by signal
  bool hasHeader_ = false;
};

}  // namespace kyr::tool
