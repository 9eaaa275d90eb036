#pragma once

#include <filesystem>
#include <optional>

#include "platform/DiskFile.h"

namespace kyr::recording {

/// A new folder that is removed, with all that is in it, when the object goes; a failure to remove
/// it is ignored. While the object lives, it has an exclusive lock (flock) on the folder, from
/// which other processes see that the folder is in use.
class LockedFolder {
 public:
  /// \param prefix  of the path; 16 random hexadecimal digits follow. The parent must exist
  /// \throws std::filesystem::filesystem_error, std::system_error  if it cannot be made
  explicit LockedFolder(const std::filesystem::path& prefix,
                        std::filesystem::perms permissions = std::filesystem::perms::all);
  ~LockedFolder();
  LockedFolder(const LockedFolder&) = delete;
  LockedFolder& operator=(const LockedFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }

  /// Leaves the folder, or what took its name, alone from now on.
  void release() { path_.clear(); }

 private:
  // \return whether nobody removed the folder before it had the lock
  bool lock();

  std::filesystem::path path_;
  std::optional<DiskFile> folder_;
};

}  // namespace kyr::recording
