#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

struct stat;

namespace kyr {

/// Which file a name or a descriptor stands for, its size, and when it was changed last.
struct FileState {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;     ///< bytes
  std::int64_t modified = 0;  ///< ns since 1970; other programs can set it to anything
  std::int64_t changed = 0;   ///< ns since 1970, by the clock of the file system

  explicit FileState(const struct stat& status);

  /// The file that has the name now; empty if there is none.
  static std::optional<FileState> ofName(const std::filesystem::path& path);

  /// Whether both are of the same file. The system gives the numbers of a deleted file to a new
  /// one, so the answer is certain only if one of the two files has been open since its state was
  /// taken.
  bool isSameFile(const FileState& other) const {
    return device == other.device && inode == other.inode;
  }

  /// Whether every change of the file from \p now on shows in its state. The clocks of file systems
  /// tick: two changes within a tick have the same time, and may leave the same size.
  /// \param now  nowByTheClock() before the state was taken
  bool showsEveryChangeSince(std::int64_t now) const;

  friend bool operator==(const FileState& a, const FileState& b) {
    return a.isSameFile(b) && a.size == b.size && a.modified == b.modified &&
           a.changed == b.changed;
  }
};

/// Nanoseconds since 1970 by the system's clock.
std::int64_t nowByTheClock();

}  // namespace kyr
