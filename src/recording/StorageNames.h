#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kyr/recording/RecordingInfo.h"

/// The names of the files in a storage folder.
namespace kyr::recording {

/// The newest format that this library reads, and the one that it writes.
constexpr int kFormatVersion = 3;

/// What follows the storage id in the names of files.
constexpr const char* kStorageExtension = ".parquet";

/// The name of the file of a content.
/// \param formatVersion  of the recording, whether it is finished or not; before version 3 names
///        had no extension
std::string storageName(int storageId, int formatVersion = kFormatVersion);
/// The name that the file of a content has where any version may have written it.
/// \param isThere  tells of a name whether there is such a file
template <typename IsThere>
std::string storedName(int storageId, IsThere&& isThere) {
  std::string name = storageName(storageId);
  std::string old = storageName(storageId, /*formatVersion=*/1);
  return !isThere(name) && isThere(old) ? old : name;
}
/// The storage id whose file has that name in any version; none for other names.
std::optional<int> storageIdOf(std::string_view name);

std::string packName(int number);
/// Whether that is the name of a finished pack.
bool isPackName(std::string_view name);

/// The name of the file that has a content: its own, or a pack.
std::string fileName(const RecordingInfo& info, const FileInfo& content);

/// Whether kyr may have made a file of that name: that of a content, one with `.copy` behind the id
/// while a file is copied, or a finished or growing pack.
bool isStorageName(std::string_view name);

}  // namespace kyr::recording
