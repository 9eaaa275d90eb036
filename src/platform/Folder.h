#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "kyr/platform/Links.h"
#include "platform/DiskFile.h"

namespace kyr {

/// An open folder, in which names are looked up even if it was renamed or another one took its
/// name. What is made, written, renamed or removed here lies in the folder: nothing leads through a
/// symbolic link. What is read does so only if links are followed.
///
/// Names are those of entries and have no separator. Failures are a std::system_error that names
/// the file. Copies share the descriptor.
class Folder {
 public:
  /// \param path  may itself be a link, or lead through links
  explicit Folder(const std::filesystem::path& path, Links links = Links::refused);

  const std::filesystem::path& path() const { return disk_->path(); }
  Links links() const { return links_; }
  /// Which folder it is.
  FileState state() const { return disk_->state(); }

  Folder folder(const std::string& name) const;
  /// Makes the folder if there is nothing of that name.
  Folder makeFolder(const std::string& name) const;
  /// Opens or makes a regular file. A file that is written is never reached through a link.
  std::unique_ptr<DiskFile> open(const std::string& name,
                                 DiskFile::Mode mode = DiskFile::Mode::readOnly) const;

  enum class Entry { none, file, folder, link, other };
  /// What has the name; links are not followed.
  Entry entry(const std::string& name) const;
  bool has(const std::string& name) const { return entry(name) != Entry::none; }
  /// The size of a regular file, which is not opened unless it is reached through a link.
  std::uint64_t sizeOf(const std::string& name) const;
  /// The names of all entries, ascending.
  std::vector<std::string> names() const;

  /// Removes a file or a link.
  /// \return false if there is none
  bool remove(const std::string& name) const;
  /// Does the same, and ignores a failure.
  void tryRemove(const std::string& name) const noexcept;
  /// Gives an entry another name in one step; a file that had it is replaced.
  void rename(const std::string& from, const Folder& folder, const std::string& to) const;
  /// Gives a file a second name. \return whether the file system can do that
  bool link(const std::string& name, const Folder& folder, const std::string& other) const;

  /// Locks the folder as DiskFile::tryLock() does.
  bool tryLock(DiskFile::Lock lock) const { return disk_->tryLock(lock); }

  /// Waits until the names are on the disk.
  void sync() const;

 private:
  Folder(std::shared_ptr<DiskFile> disk, Links links) : disk_(std::move(disk)), links_(links) {}
  [[noreturn]] void fail(const std::string& name, const char* what) const;

  std::shared_ptr<DiskFile> disk_;
  Links links_;
};

/// Called before a file is written in place: if it has other names (hard links), they keep it, and
/// \p name gets a copy of its own.
/// \throws std::system_error if it cannot be copied
void copyIfLinked(const Folder& folder, const std::string& name);

}  // namespace kyr
