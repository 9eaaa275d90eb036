#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "kyr/recording/RecordingInfo.h"
#include "platform/DiskFile.h"

namespace kyr::recording {

/// The folder of a recording, open for reading. Its files are found through descriptors, also if
/// the folder is renamed or another one takes its name. Only regular files are opened.
class OpenFolder {
 public:
  /// \throws std::runtime_error if there is no such folder
  explicit OpenFolder(std::filesystem::path folder);

  const std::filesystem::path& path() const { return path_; }

  /// Whether there is a regular file of that name.
  bool has(const std::string& name) const;
  /// \throws std::system_error naming the file if it cannot be read
  std::string readText(const std::string& name) const;
  /// \throws std::system_error naming the file if it cannot be opened
  std::unique_ptr<DiskFile> open(const std::string& name) const;
  /// Which folder it is.
  FileState state() const { return folder_.state(); }
  /// The size of a file of the storage folder.
  /// \throws std::system_error naming the file if there is no such regular file
  std::uint64_t sizeOfStored(const std::string& name) const;
  /// Opens a file of the storage folder.
  /// \throws std::system_error naming the file if it cannot be opened
  std::unique_ptr<DiskFile> openStored(const std::string& name) const;

 private:
  std::filesystem::path path_;
  DiskFile folder_;
  std::unique_ptr<DiskFile> storage_;  // null if the recording has none
};

/// Does what describeRecording() does for a path.
RecordingInfo describeRecording(const OpenFolder& folder);

}  // namespace kyr::recording
