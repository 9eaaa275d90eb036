#pragma once

#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kyr/recording/RecordingInfo.h"
#include "platform/Folder.h"

namespace kyr::recording {

/// The folder of a recording, open for reading. Its files are found through descriptors, also if
/// the folder is renamed or another one takes its name. Only regular files are opened.
class OpenFolder {
 public:
  /// \throws std::runtime_error if there is no such folder
  explicit OpenFolder(const std::filesystem::path& folder, Links links = Links::refused);
  explicit OpenFolder(Folder folder);

  const std::filesystem::path& path() const { return folder_.path(); }
  Links links() const { return folder_.links(); }

  /// Whether there is a regular file of that name.
  bool has(const std::string& name) const;
  /// \throws std::system_error naming the file if it cannot be read
  std::string readText(const std::string& name) const;
  /// \throws std::system_error naming the file if it cannot be opened
  std::unique_ptr<DiskFile> open(const std::string& name) const { return folder_.open(name); }
  /// Whether another folder has the name now, as behind a save.
  bool isReplaced() const;
  /// Which folder it is.
  FileState state() const { return folder_.state(); }
  /// Whether the storage folder has anything of that name.
  bool hasStored(const std::string& name) const;
  /// The size of a file of the storage folder.
  /// \throws std::system_error naming the file if there is no such regular file
  std::uint64_t sizeOfStored(const std::string& name) const;
  /// Opens a file of the storage folder.
  /// \throws std::system_error naming the file if it cannot be opened
  std::unique_ptr<DiskFile> openStored(const std::string& name) const;
  /// The names of everything in the storage folder; none if there is no such folder.
  std::vector<std::string> storedNames() const;

 private:
  Folder folder_;
  std::optional<Folder> storage_;  // empty if the recording has none
};

/// Calls \p work with the folder that is open, and again with the one that took its name if \p work
/// fails because a save replaced the folder meanwhile.
template <typename Work>
auto inOpenFolder(const std::filesystem::path& path, Links links, Work&& work) {
  constexpr int kAttempts = 10;
  for (int attempt = 1;; ++attempt) {
    const auto folder = std::make_shared<const OpenFolder>(path, links);
    try {
      return work(folder);
    } catch (const std::exception&) {
      if (attempt == kAttempts || !folder->isReplaced()) throw;
    }
  }
}

/// Does what describeRecording() does for a path.
RecordingInfo describeRecording(const OpenFolder& folder);

}  // namespace kyr::recording
