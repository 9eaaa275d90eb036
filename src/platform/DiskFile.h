#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "kyr/platform/Links.h"
#include "platform/ByteSource.h"
#include "platform/FileState.h"

namespace kyr {

/// An open file that is read and written at given offsets. Short transfers and interrupted calls
/// are continued; every other failure is a std::system_error whose text names the file.
class DiskFile final : public ByteSource {
 public:
  enum class Mode {
    createNew,  ///< for reading and writing; fails if the name is taken
    readWrite,  ///< an existing file
    readOnly,   ///< an existing file, or a directory that is to be locked or synced
  };

  /// Opens regular files and directories only. A pipe or a device is refused at once, also where an
  /// ordinary open would wait for its other end.
  DiskFile(std::filesystem::path path, Mode mode);
  enum class Entry { file, folder };
  /// Opens the entry \p name of an open folder, also if the folder was renamed. The object cannot
  /// be suspended.
  DiskFile(const DiskFile& folder, const std::string& name, Entry entry, Mode mode, Links links);
  /// Closes the file and ignores a failure to do so.
  ~DiskFile() override;
  DiskFile(const DiskFile&) = delete;
  DiskFile& operator=(const DiskFile&) = delete;

  const std::filesystem::path& path() const override { return path_; }
  std::uint64_t size() const override;
  FileState state() const;
  /// \throws std::runtime_error naming the file if it was deleted while it was open
  void requireName() const;
  bool isFolder() const;
  /// Whether the file has more than one name (hard links).
  bool hasOtherNames() const;
  /// The open file, for calls of the system that this class does not have.
  int descriptor() const;

  /// Writes the pieces one after the other, starting at \p offset. After a failure some of the
  /// bytes may have been written.
  void writeAt(std::uint64_t offset, const std::vector<std::string_view>& pieces);

  std::size_t readAt(std::uint64_t offset, void* out, std::size_t size) const override;

  void truncate(std::uint64_t size);
  /// \return whether it succeeded
  bool tryTruncate(std::uint64_t size) noexcept;

  /// Waits until the content, and the metadata needed to find it, are on the disk. After a failure
  /// the system may count lost bytes as written: a later sync that succeeds proves nothing.
  void syncData();
  /// Has the system begin to write the bytes to the disk where it can, and does not wait for that.
  /// A sync that follows has less to wait for.
  void startSync(std::uint64_t offset, std::uint64_t size) noexcept;
  /// Does what syncData() does, and includes times and permissions. Works for directories, too.
  void syncAll();

  /// An advisory lock on the open file. It ends with unlock(), close() or the process. Works for
  /// directories, too.
  enum class Lock { shared, exclusive };
  /// \return false if somebody else has a lock that excludes this one
  bool tryLock(Lock lock);
  void unlock();

  /// Closes the file, also when it throws.
  /// \throws std::system_error if the system reports that written bytes were lost
  void close();

  /// Gives the descriptor back until the file is used next. The file must keep its name.
  /// \throws std::system_error as close()
  void suspend();

 private:
  [[noreturn]] void fail(const char* what, int error) const;
  void open(int flags) const;
  // Takes the descriptor that a call gave, if it is that of a regular file or a directory.
  void take(int descriptor, bool mayBeDirectory) const;
  struct stat status() const;
  void closeDescriptor();

  std::filesystem::path path_;
  Mode mode_;
  mutable int descriptor_ = -1;
  bool suspended_ = false;
};

/// The content of a file.
/// \throws std::system_error naming the file
std::string readWholeFile(const std::filesystem::path& file);

/// Creates a file with the given content. It is not synced.
/// \throws std::system_error naming the file, also if the name is taken; a file that could not be
///         written whole is removed
void writeNewFile(const std::filesystem::path& file, std::string_view content);

/// Calls \p visit with each piece of a file, and where it begins.
void forEachPieceOf(const ByteSource& file,
                    const std::function<void(std::string_view, std::uint64_t)>& visit);

/// Copies the bytes of \p from to the beginning of a file.
void copyTo(DiskFile& to, const ByteSource& from);

/// Copies the bytes of \p from to a new file.
/// \throws std::exception naming the file that cannot be read or written; no copy is left behind
///         then
void copyToNewFile(const ByteSource& from, const std::filesystem::path& to, bool sync);

/// Waits until a file, or the names in a directory, are on the disk.
/// \throws std::system_error naming the path
void syncPath(const std::filesystem::path& path);

/// The same of many files, which the file system can write together. Some may be synced when it
/// throws.
void syncPaths(const std::vector<std::filesystem::path>& paths);

/// Syncs the directory of \p file. Without it a power cut may remove a new file whose content was
/// synced.
/// \throws std::system_error naming the directory
void syncDirectoryOf(const std::filesystem::path& file);

/// Gives \p from the name \p to in one step. A file takes the place of a file, a directory that of
/// an empty directory.
/// \throws std::system_error naming both; nothing has changed then. The code is
///         std::errc::directory_not_empty or file_exists for a directory that is not empty
void renamePath(const std::filesystem::path& from, const std::filesystem::path& to);

/// Exchanges two names in one step.
/// \return false if the file system cannot do that
/// \throws std::system_error naming both; nothing has changed then
bool exchangePaths(const std::filesystem::path& one, const std::filesystem::path& other);

}  // namespace kyr
