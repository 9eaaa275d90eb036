#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string_view>
#include <vector>

namespace kyr {

/// An open file that is read and written at given offsets. Short transfers and interruptions are
/// dealt with; every other failure is a std::system_error whose text names the file.
class DiskFile {
 public:
  enum class Mode {
    createNew,  ///< for reading and writing; fails if there is anything of that name
    readWrite,
    readOnly,
  };

  DiskFile(std::filesystem::path path, Mode mode);
  /// Closes the file, whether that succeeds or not.
  ~DiskFile();
  DiskFile(const DiskFile&) = delete;
  DiskFile& operator=(const DiskFile&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::uint64_t size() const;
  /// \throws std::runtime_error naming the file if it was deleted while it was open
  void requireName() const;

  /// The pieces one after the other, from \p offset on. What is there of them after a failure is
  /// left open.
  void writeAt(std::uint64_t offset, const std::vector<std::string_view>& pieces);

  /// \return bytes read, fewer than \p size only where the file ends
  std::size_t readAt(std::uint64_t offset, void* out, std::size_t size) const;

  void truncate(std::uint64_t size);
  /// \return whether it succeeded
  bool tryTruncate(std::uint64_t size) noexcept;

  /// Waits until the content, and what is needed to find it, is on the disk. After a failure the
  /// system may take what it could not write for written: syncing again proves nothing then.
  void syncData();
  /// As syncData(), times and permissions included; works for directories as well.
  void syncAll();

  /// An advisory lock of the open file, until it is unlocked or closed; a process that ends in
  /// whatever way gives it back. Works for directories as well.
  enum class Lock { shared, exclusive };
  /// \return whether nobody else has a lock that excludes this one
  bool tryLock(Lock lock);
  void unlock();

  /// \throws std::system_error if the system reports that something was lost; the file is closed
  ///         all the same
  void close();

  /// Closes the file until it is used next, to save the descriptor. It must keep its name.
  /// \throws std::system_error as close()
  void suspend();

 private:
  [[noreturn]] void fail(const char* what, int error) const;
  // Opens a suspended file.
  int descriptor() const;

  std::filesystem::path path_;
  Mode mode_;
  mutable int descriptor_ = -1;
  bool suspended_ = false;
};

/// Waits until the names in the directory of \p file are on the disk: a new file may otherwise be
/// gone after a power cut, however well its content was synced.
void syncDirectoryOf(const std::filesystem::path& file);

}  // namespace kyr
