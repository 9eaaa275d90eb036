#pragma once

#include <filesystem>
#include <string>

#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"

namespace kyr {

/// \brief The file-system operations that the library stands on, over `Path`.
///
/// Failures are std::filesystem::filesystem_error naming the path, unless stated otherwise.
namespace fileSystem {

KYR_PARQUET_EXPORT bool exists(const Path& path);
KYR_PARQUET_EXPORT bool isDirectory(const Path& path);

/// \brief Create one directory whose parent exists; an existing directory is left alone.
KYR_PARQUET_EXPORT void createOneDirectory(const Path& path);

/// \brief Remove one file; a missing one is no error.
KYR_PARQUET_EXPORT void removeFile(const Path& path);

KYR_PARQUET_EXPORT Path currentDirectory();

/// \brief The system's directory for temporary files ($TMPDIR, else /tmp).
KYR_PARQUET_EXPORT Path temporaryDirectory();

/// \brief A path in \p directory that does not exist: prefix, 16 random hex digits, suffix.
///
/// Nothing is created, so another process may still take the name.
KYR_PARQUET_EXPORT Path uniqueName(const Path& directory, const std::u16string& prefix,
                                   const std::u16string& suffix);

}  // namespace fileSystem

/// \brief One entry of a directory as `directory_iterator` shows it.
class KYR_PARQUET_EXPORT DirectoryEntry {
 public:
  enum class Type { file, directory, other };

  explicit DirectoryEntry(std::filesystem::directory_entry entry);

  /// \brief The type of what the entry names. Links are followed. An entry that has vanished
  /// meanwhile is `other`.
  Type type() const noexcept;

  /// \throws std::invalid_argument if the name is not well-formed UTF-8
  Path fullPath() const;
  /// \throws std::invalid_argument as fullPath()
  Path fileName() const;

  /// \brief The path in the platform's own bytes, which may be no valid UTF-8.
  const std::filesystem::path& filesystemPath() const noexcept { return entry_.path(); }

 private:
  std::filesystem::directory_entry entry_;
};

/// \brief A walk over the entries of one directory, in the platform's order.
///
/// A default-constructed iterator is the end. Copies share their position: advancing one advances
/// all, as with std::filesystem::directory_iterator.
class KYR_PARQUET_EXPORT directory_iterator {
 public:
  directory_iterator() = default;

  /// \throws std::filesystem::filesystem_error if \p directory cannot be opened
  explicit directory_iterator(const Path& directory);

  /// \throws std::filesystem::filesystem_error (invalid_argument) at the end
  DirectoryEntry entry() const;

  /// \brief Step to the next entry.
  /// \throws std::filesystem::filesystem_error if reading the directory fails, or at the end
  directory_iterator& operator++();

  friend bool operator==(const directory_iterator& a, const directory_iterator& b) {
    return a.position_ == b.position_;
  }
  friend bool operator!=(const directory_iterator& a, const directory_iterator& b) {
    return !(a == b);
  }

 private:
  void throwIfAtEnd(const char* operation) const;

  std::filesystem::directory_iterator position_;
};

}  // namespace kyr
