#include "recording/CompleteRecording.h"

#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingFormat.h"

namespace kyr::recording {

namespace fs = std::filesystem;

void completeRecording(const fs::path& folder, RecordingInfo info, bool syncsFiles) {
  for (FileInfo& file : info.files) {
    const fs::path path = storagePath(folder, file.storageId);
    FileDigest digest = digestFile(path);
    file.size = digest.size;
    file.checksum = std::move(digest.checksum);
    file.blocks = std::move(digest.blocks);
    if (syncsFiles) syncPath(path);
  }
  syncPath(folder / kStorageFolder);
  replaceTextFile(descriptionPath(folder), writeRecordingJson(info), /*syncs=*/true);
}

void removeUnnamed(const fs::path& folder, const RecordingInfo& info) {
  std::set<std::string> named;
  for (const FileInfo& file : info.files) named.insert(std::to_string(file.storageId));
  for (const PackInfo& pack : info.packs) named.insert(packName(pack.number));
  std::vector<fs::path> others;
  std::error_code ignored;
  for (fs::directory_iterator it(folder / kStorageFolder, ignored), end; it != end;
       it.increment(ignored)) {
    if (named.count(it->path().filename().string()) == 0) others.push_back(it->path());
  }
  for (const fs::path& path : others) fs::remove(path, ignored);
}

void removeLiveFiles(const fs::path& folder) {
  for (const char* name : {kLiveFile, kJournalFile}) {
    fs::remove(folder / (std::string(name) + ".new"));
    fs::remove(folder / name);
  }
  syncPath(folder);
}

}  // namespace kyr::recording
