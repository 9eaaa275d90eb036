#include "recording/CompleteRecording.h"

#include <memory>
#include <set>
#include <system_error>
#include <utility>

#include "files/pack/GrowingPack.h"
#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingFormat.h"

namespace kyr::recording {

namespace {

bool isNumber(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// The text without an end that it has; empty if it has another one.
std::string_view without(std::string_view text, std::string_view end) {
  if (text.size() < end.size() || text.substr(text.size() - end.size()) != end) return {};
  return text.substr(0, text.size() - end.size());
}

}  // namespace

void completeRecording(const Folder& folder, RecordingInfo info, bool syncsFiles) {
  const Folder storage = folder.folder(kStorageFolder);
  for (FileInfo& file : info.files) {
    if (file.pack) continue;
    const std::shared_ptr<DiskFile> stored = storage.open(std::to_string(file.storageId));
    describeFile(file, digestOf(*stored));
    describeRowsIn(stored, file);
    if (syncsFiles) stored->syncAll();
  }
  for (const PackInfo& pack : info.packs) storage.open(packName(pack.number))->syncAll();
  storage.sync();
  replaceTextFile(folder, kDescriptionFile, writeRecordingJson(info), /*syncs=*/true);
}

bool isPackName(std::string_view name) {
  constexpr std::string_view kPack = "pack-";
  return name.substr(0, kPack.size()) == kPack &&
         isNumber(without(name.substr(kPack.size()), ".parquet"));
}

bool isStorageName(std::string_view name) {
  return isPackName(name) || parquet::growingPackNumber(name) || isNumber(name) ||
         isNumber(without(name, ".copy"));
}

std::vector<std::string> unnamedIn(const Folder& storage, const RecordingInfo& info) {
  std::set<std::string> named;
  for (const FileInfo& file : info.files) {
    if (!file.pack) named.insert(std::to_string(file.storageId));
  }
  for (const PackInfo& pack : info.packs) named.insert(packName(pack.number));
  std::vector<std::string> unnamed;
  for (std::string& name : storage.names()) {
    if (named.count(name) == 0) unnamed.push_back(std::move(name));
  }
  return unnamed;
}

bool removeUnnamed(const Folder& folder, const RecordingInfo& info) {
  const Folder storage = folder.folder(kStorageFolder);
  bool areGone = true;
  for (const std::string& name : unnamedIn(storage, info)) {
    if (!isStorageName(name) || storage.entry(name) != Folder::Entry::file) continue;
    storage.tryRemove(name);
    areGone = areGone && !storage.has(name);
  }
  try {
    storage.sync();
  } catch (const std::system_error&) {
    return false;
  }
  return areGone;
}

void removeLiveFiles(const Folder& folder) {
  for (const std::string name : {kLiveFile, kJournalFile}) {
    folder.remove(name + ".new");
    folder.remove(name);
  }
  folder.sync();
}

}  // namespace kyr::recording
