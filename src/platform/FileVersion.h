#pragma once

#include <sys/stat.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

namespace kyr {

/// Which file a name stands for, and when that was changed last: whether what was read of it is
/// what it still holds.
struct FileVersion {
  std::array<std::int64_t, 5> facts{};

  /// Empty if there is no such file.
  static std::optional<FileVersion> of(const std::filesystem::path& path) {
    struct stat there {};
    if (::stat(path.c_str(), &there) != 0) return std::nullopt;
    constexpr std::int64_t kPerSecond = 1'000'000'000;
    return FileVersion{{static_cast<std::int64_t>(there.st_dev),
                        static_cast<std::int64_t>(there.st_ino), there.st_size,
                        there.st_mtim.tv_sec * kPerSecond + there.st_mtim.tv_nsec,
                        there.st_ctim.tv_sec * kPerSecond + there.st_ctim.tv_nsec}};
  }
  friend bool operator==(const FileVersion& a, const FileVersion& b) { return a.facts == b.facts; }
};

/// Times that were read of a file, for signals that share them and are read one after the other.
struct KnownTimes {
  /// More of them are not worth the memory.
  static constexpr std::size_t kMost = std::size_t{1} << 20U;

  std::optional<FileVersion> version;  ///< of the file, before it was read
  std::vector<double> values;
};

}  // namespace kyr
