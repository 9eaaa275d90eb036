#pragma once

#include <filesystem>
#include <string>

#include "kyr/platform/Path.h"
#include "recording/StorageNames.h"

/// The names of a recording's files and folders.
namespace kyr::recording {

constexpr const char* kDescriptionFile = "recording.json";
constexpr const char* kSignalsFile = "signals.parquet";
constexpr const char* kStorageFolder = "storage";

constexpr const char* kLiveFile = "recording.live.json";
constexpr const char* kJournalFile = "recording.journal";

/// Folders of intermediate files: `<recording>.saving-<digits>`, `<recording>.importing-<digits>`,
/// and `kyr-tmp-<digits>` among temporary files (`kyr-<digits>` in older versions).
constexpr const char* kSavingInfix = ".saving-";
constexpr const char* kImportingInfix = ".importing-";
constexpr const char* kTemporaryPrefix = "kyr-tmp-";
constexpr const char* kOldTemporaryPrefix = "kyr-";
/// What was read from a pipe, in a folder among temporary files.
constexpr const char* kPipeFile = "pipe.csv";

/// The absolute path of a recording, links resolved, without a separator at its end.
inline std::filesystem::path canonicalFolder(const std::filesystem::path& folder) {
  const std::filesystem::path path =
      std::filesystem::weakly_canonical(std::filesystem::absolute(folder));
  return path.has_filename() ? path : path.parent_path();
}

inline std::filesystem::path descriptionPath(const std::filesystem::path& folder) {
  return folder / kDescriptionFile;
}

inline std::filesystem::path packPath(const std::filesystem::path& folder, int number) {
  return folder / kStorageFolder / packName(number);
}

inline std::filesystem::path storagePath(const std::filesystem::path& folder, int storageId) {
  return folder / kStorageFolder / storageName(storageId);
}

/// The file that has the rows of a content, in a recording of the newest version.
inline std::filesystem::path contentPath(const std::filesystem::path& folder,
                                         const FileInfo& content) {
  return content.pack ? packPath(folder, *content.pack) : storagePath(folder, content.storageId);
}

}  // namespace kyr::recording
