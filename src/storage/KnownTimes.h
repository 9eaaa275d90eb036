#pragma once

#include <sys/stat.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

namespace kyr::parquet {

/// The times that were read last of a file, for as long as its name stands for the same unchanged
/// file: those of one file are mostly read once for each signal that shares them.
class KnownTimes {
 public:
  /// Replaces \p values by the times in the file.
  /// \param readFile  does so where they are not known, and returns whether it did
  template <typename ReadFile>
  bool read(const std::filesystem::path& path, std::vector<double>& values, ReadFile&& readFile) {
    // Taken before reading: what changes meanwhile is read again.
    const auto version = versionOf(path);
    if (version && version == version_) {
      values = values_;
      return true;
    }
    if (!readFile(values)) return false;
    if (version && values.size() <= kMost) {
      version_ = version;
      values_ = values;
    }
    return true;
  }

 private:
  // More of them are not worth the memory.
  static constexpr std::size_t kMost = std::size_t{1} << 20U;

  // Which file a name stands for, and when that was changed last.
  using Version = std::array<std::int64_t, 5>;

  static std::optional<Version> versionOf(const std::filesystem::path& path) {
    struct stat there {};
    if (::stat(path.c_str(), &there) != 0) return std::nullopt;
    constexpr std::int64_t kPerSecond = 1'000'000'000;
    return Version{static_cast<std::int64_t>(there.st_dev), static_cast<std::int64_t>(there.st_ino),
                   there.st_size, there.st_mtim.tv_sec * kPerSecond + there.st_mtim.tv_nsec,
                   there.st_ctim.tv_sec * kPerSecond + there.st_ctim.tv_nsec};
  }

  std::optional<Version> version_;
  std::vector<double> values_;
};

}  // namespace kyr::parquet
