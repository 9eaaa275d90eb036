#include "recording/CompleteRecording.h"

#include <memory>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/BackgroundWork.h"
#include "platform/Parallel.h"
#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"
#include "recording/SignalTable.h"

namespace kyr::recording {

void completeRecording(const Folder& folder, RecordingInfo info, bool syncsFiles) {
  const Folder storage = folder.folder(kStorageFolder);
  std::vector<FileInfo*> files;
  for (FileInfo& file : info.files) {
    if (!file.pack) files.push_back(&file);
  }
  const std::size_t threads =
      syncsFiles ? threadsForSyncing(files.size()) : threadsForFiles(files.size());
  forEachInThreads(files.size(), threads, [&](std::size_t i, std::size_t /*thread*/) {
    const std::shared_ptr<DiskFile> stored = storage.open(fileName(info, *files[i]));
    describeFile(*files[i], digestOf(*stored));
    describeRowsIn(stored, *files[i]);
    if (syncsFiles) stored->syncAll();
  });
  // The disk writes packs while the table of signals is made. All files are on it before
  // recording.json names them.
  BackgroundWork syncing(1);
  syncing.add([&storage, packs = info.packs] {
    for (const PackInfo& pack : packs) storage.open(packName(pack.number))->syncAll();
    storage.sync();
  });
  writeDescription(folder, info, /*syncs=*/true, [&syncing] { syncing.wait(); });
}

std::vector<std::string> unnamedIn(const Folder& storage, const RecordingInfo& info) {
  std::set<std::string> named;
  for (const FileInfo& file : info.files) named.insert(fileName(info, file));
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
