#include "recording/LostFiles.h"

#include <fmt/format.h>

#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"

namespace kyr::recording {

namespace {

// A name that is not taken; empty if \p file has one of those that would come before.
std::string freeName(const Folder& folder, const std::string& name, const DiskFile* file) {
  std::string free = name;
  for (int attempt = 1; folder.has(free); ++attempt) {
    const bool isFile = file != nullptr && folder.entry(free) == Folder::Entry::file;
    if (isFile && folder.open(free)->state().isSameFile(file->state())) return "";
    free = fmt::format("{}-{}", name, attempt);
  }
  return free;
}

}  // namespace

void keepAside(const Folder& folder, const std::string& name) {
  const Folder storage = folder.folder(kStorageFolder);
  const Folder lost = folder.makeFolder(kLostFolder);
  const auto file = storage.open(name);
  const std::string free = freeName(lost, name, file.get());
  if (free.empty()) return;  // a recovery was killed behind this
  if (!storage.link(name, lost, free)) copyInto(lost, free, *file);
  file->syncData();
  lost.sync();
  folder.sync();
}

void moveAside(const Folder& folder, const std::string& name) {
  const Folder lost = folder.makeFolder(kLostFolder);
  folder.folder(kStorageFolder).rename(name, lost, freeName(lost, name, nullptr));
}

void copyInto(const Folder& folder, const std::string& name, const DiskFile& from) {
  const auto to = folder.open(name, DiskFile::Mode::createNew);
  try {
    copyTo(*to, from);
    to->syncAll();
    to->close();
  } catch (...) {
    folder.tryRemove(name);
    throw;
  }
}

}  // namespace kyr::recording
