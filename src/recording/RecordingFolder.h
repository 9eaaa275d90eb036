#pragma once

#include <filesystem>
#include <string>

#include "kyr/platform/Path.h"

/// Where things lie in a recording's folder.
namespace kyr::recording {

constexpr const char* kDescriptionFile = "recording.json";
constexpr const char* kStorageFolder = "storage";

constexpr const char* kLiveFile = "recording.live.json";
constexpr const char* kJournalFile = "recording.journal";

inline std::filesystem::path descriptionPath(const std::filesystem::path& folder) {
  return folder / kDescriptionFile;
}

inline std::string packName(int number) { return "pack-" + std::to_string(number) + ".parquet"; }

inline std::filesystem::path packPath(const std::filesystem::path& folder, int number) {
  return folder / kStorageFolder / packName(number);
}

inline std::filesystem::path storagePath(const std::filesystem::path& folder, int storageId) {
  return folder / kStorageFolder / std::to_string(storageId);
}

}  // namespace kyr::recording
