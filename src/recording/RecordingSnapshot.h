#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kyr/parquet/SignalPool.h"
#include "kyr/recording/RecordingInfo.h"

namespace kyr::recording {

/// Collects what recording.json says of signals over the Parquet files of a directory.
class InfoBuilder {
 public:
  explicit InfoBuilder(std::filesystem::path directory) : directory_(std::move(directory)) {}

  /// Adds a signal and the files that it names, and tells from them what the signal's files tell.
  /// \throws std::runtime_error naming a file that is missing or no Parquet file
  void add(SignalInfo signal);

  /// Sizes and checksums of the files are left out.
  /// \param records  text for SignalPool::deserializeSignalRecords; made of the signals if empty
  RecordingInfo take(std::string records = "");

 private:
  struct FileFacts {
    std::uint64_t rowCount = 0;
    std::string compression;
    std::optional<TimeSpan> timeSpan;
  };

  const FileFacts& factsOf(int signalId, int storageId, bool isTime);

  std::filesystem::path directory_;
  std::map<int, SignalInfo> signals_;
  std::map<std::pair<int, bool>, FileFacts> facts_;
  std::map<int, std::uint64_t> files_;  // rows by storage id
};

/// What a recording of the pool says, without sizes and checksums of its files. Finishes all
/// streamable signals.
/// \throws std::invalid_argument, std::runtime_error  as saveRecording()
RecordingInfo snapshotOf(parquet::SignalPool& pool,
                         const std::vector<SignalDescription>& descriptions);

}  // namespace kyr::recording
