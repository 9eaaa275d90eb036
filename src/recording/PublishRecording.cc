#include "recording/PublishRecording.h"

#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"
#include "recording/SignalTable.h"

namespace kyr::recording {

namespace fs = std::filesystem;
namespace {

// Calls \p visit with the name of each entry of a recording's folder that is not the recording's.
template <typename Visit>
void forEachForeign(const fs::path& folder, Visit&& visit) {
  std::error_code ignored;
  for (fs::directory_iterator it(folder, ignored), end; it != end; it.increment(ignored)) {
    const fs::path name = it->path().filename();
    if (name != kDescriptionFile && name != kSignalsFile && name != kStorageFolder) visit(name);
  }
}

std::optional<FileId> idOf(const fs::path& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return std::nullopt;
  return FileId(status.st_dev, status.st_ino);
}

// Notes the files of an entry, and syncs its folders.
void noteLinked(const fs::path& path, bool sync, std::set<FileId>& files) {
  if (!isFolder(path)) {
    if (const auto id = idOf(path)) files.insert(*id);
    return;
  }
  std::error_code ignored;
  for (fs::directory_iterator it(path, ignored), end; it != end; it.increment(ignored)) {
    noteLinked(it->path(), sync, files);
  }
  if (sync && ::access(path.c_str(), R_OK) == 0) syncPath(path);
}

// Other entries of a recording's folder are in the new one from the start, as links to the same
// files: a save that is killed loses none of them. Those that cannot be linked are moved by
// disposeOf().
std::set<FileId> linkForeign(const fs::path& folder, const fs::path& fresh, bool sync) {
  constexpr auto kLinks = fs::copy_options::recursive | fs::copy_options::create_hard_links |
                          fs::copy_options::copy_symlinks;
  std::set<FileId> linked;
  forEachForeign(folder, [&](const fs::path& name) {
    std::error_code error;
    fs::copy(folder / name, fresh / name, kLinks, error);
    if (error) {
      // A folder that cannot be listed was made without what is in it, and is moved as it is.
      fs::remove(fresh / name, error);
      fs::remove_all(fresh / name, error);
    }
    if (idOf(fresh / name)) noteLinked(fresh / name, sync, linked);
  });
  return linked;
}

// Moves an entry of the older folder to its place in the newer one, unless it is there. Others may
// have replaced the file in the older folder since it was linked, or that in the newer one. Where
// they did both, the older file stays where it is.
void handOver(const fs::path& from, const fs::path& to, const std::set<FileId>& linked) {
  std::error_code ignored;
  if (isFolder(from) && isFolder(to)) {
    for (fs::directory_iterator it(from, ignored), end; it != end; it.increment(ignored)) {
      handOver(it->path(), to / it->path().filename(), linked);
    }
    fs::remove(from, ignored);
    return;
  }
  const auto wasLinked = [&](const fs::path& path) {
    const auto id = idOf(path);
    return id && linked.count(*id) > 0;
  };
  const bool isThere = idOf(to).has_value();
  const bool isSame = isThere && isLinkOf(from, to);
  if (!isThere || (!isSame && wasLinked(to))) {
    fs::rename(from, to, ignored);
  } else if (isSame || wasLinked(from)) {
    fs::remove(from, ignored);
  }
}

// Called when all is written, so that the disk can write the files together.
void syncAll(const fs::path& folder, const RecordingInfo& info) {
  std::vector<fs::path> paths{descriptionPath(folder), folder / kSignalsFile,
                              folder / kStorageFolder};
  for (const PackInfo& pack : info.packs) paths.push_back(packPath(folder, pack.number));
  for (const FileInfo& file : info.files) {
    if (!file.pack) paths.push_back(storagePath(folder, file.storageId));
  }
  syncPaths(paths);
}

}  // namespace

ReplacedRecording publishRecording(LockedFolder& fresh, RecordingInfo info, const fs::path& target,
                                   const ReplaceOptions& options) {
  info.formatVersion = kFormatVersion;
  writeDescription(Folder(fresh.path()), info, /*syncs=*/false);
  if (options.sync) syncAll(fresh.path(), info);
  ReplacedRecording old;
  // Last, since what others change in the older folder from here on has to be handed over.
  if (fs::exists(target)) {
    old.linked = linkForeign(target, fresh.path(), options.sync);
    fs::permissions(fresh.path(), fs::status(target).permissions());
  }
  if (options.sync) syncPath(fresh.path());
  old.folder = replaceFolder(fresh, target, options);
  return old;
}

void disposeOf(const ReplacedRecording& old, const fs::path& folder) {
  if (old.folder.empty()) return;
  std::error_code ignored;
  forEachForeign(old.folder, [&](const fs::path& name) {
    handOver(old.folder / name, folder / name, old.linked);
  });
  fs::remove_all(old.folder / kStorageFolder, ignored);
  for (const char* name : {kDescriptionFile, kSignalsFile}) fs::remove(old.folder / name, ignored);
  fs::remove(old.folder, ignored);
}

}  // namespace kyr::recording
