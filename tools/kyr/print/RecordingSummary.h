#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "kyr/recording/RecordingInfo.h"
#include "kyr/recording/RecordingReader.h"

namespace kyr::tool {

/// "recording..." while a recording is being written, else "not finished: kyr recover FOLDER".
std::string stateOf(recording::RecordingState state, const std::string& folder);

/// \throws std::runtime_error  that says what to do, if the recording is not finished
void requireFinished(const recording::RecordingReader& reader, const std::string& folder);

/// Counts and sizes of the files of a recording, and how many bytes sharing them saves.
class RecordingSummary {
 public:
  explicit RecordingSummary(const recording::RecordingInfo& info);

  std::uint64_t storedBytes() const { return storedBytes_; }

  /// Bytes of all files if every signal had files of its own.
  std::uint64_t bytesWithoutSharing() const { return bytesWithoutSharing_; }
  std::uint64_t savedBytes() const { return bytesWithoutSharing_ - storedBytes_; }

  /// Bytes of the files of a signal, shared or not.
  std::uint64_t bytesOf(const recording::SignalInfo& signal) const;

  /// Number of files in the storage.
  std::size_t fileCount() const { return files_.size() - packedCount_ + packCount_; }

  /// Number of signals that use a file.
  std::size_t usersOf(int storageId) const;

  /// "3 signals in 4 files, 1,234 bytes; sharing files saved 100 bytes", and the same for packs.
  std::string text() const;

 private:
  struct File {
    std::uint64_t size = 0;
    std::size_t users = 0;
  };

  std::uint64_t sizeOf(const std::optional<int>& storageId) const;

  std::size_t signalCount_;
  std::size_t packCount_;
  std::size_t packedCount_ = 0;  // number of contents in packs
  std::map<int, File> files_;
  std::uint64_t storedBytes_ = 0;
  std::uint64_t bytesWithoutSharing_ = 0;
};

}  // namespace kyr::tool
