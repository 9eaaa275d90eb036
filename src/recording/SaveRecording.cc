#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "kyr/platform/FileSystem.h"
#include "kyr/recording/Recording.h"
#include "recording/ContentSaver.h"
#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingFormat.h"
#include "recording/RecordingSnapshot.h"
#include "signals/SignalPoolImpl.h"

namespace kyr::recording {

namespace fs = std::filesystem;
namespace {

// Absolute, links resolved, without a trailing separator: the folder's own name can be told.
fs::path canonicalFolder(const fs::path& folder) {
  const fs::path path = fs::weakly_canonical(fs::absolute(folder));
  return path.has_filename() ? path : path.parent_path();
}

void checkReplaceable(const fs::path& folder) {
  if (!fs::exists(folder)) {
    if (!fs::is_directory(folder.parent_path())) {
      throw std::runtime_error(
          fmt::format("{}: its parent folder does not exist", folder.string()));
    }
    return;
  }
  if (!fs::is_directory(folder)) {
    throw std::runtime_error(fmt::format("{}: is not a folder", folder.string()));
  }
  if (!fs::is_empty(folder) && !fs::exists(descriptionPath(folder))) {
    throw std::runtime_error(
        fmt::format("{}: is neither empty nor a recording, and is left as it is", folder.string()));
  }
}

// Calls \p visit with each entry of a recording's folder that others put there.
template <typename Visit>
void forEachForeign(const fs::path& folder, Visit&& visit) {
  std::error_code ignored;
  for (fs::directory_iterator it(folder, ignored), end; it != end; it.increment(ignored)) {
    const fs::path name = it->path().filename();
    if (name != kDescriptionFile && name != kStorageFolder) visit(name);
  }
}

// What others put into a recording's folder is in the new one from the start, as links to the same
// files: a save that is killed loses none of it. What cannot be linked is moved by disposeOf().
void linkForeign(const fs::path& folder, const fs::path& fresh) {
  constexpr auto kLinks = fs::copy_options::recursive | fs::copy_options::create_hard_links |
                          fs::copy_options::copy_symlinks;
  forEachForeign(folder, [&](const fs::path& name) {
    std::error_code error;
    fs::copy(folder / name, fresh / name, kLinks, error);
    if (error) fs::remove_all(fresh / name, error);
  });
}

void disposeOf(const fs::path& old, const fs::path& folder) {
  std::error_code ignored;
  forEachForeign(old, [&](const fs::path& name) {
    if (fs::exists(fs::symlink_status(folder / name, ignored))) {
      fs::remove_all(old / name, ignored);
    } else {
      fs::rename(old / name, folder / name, ignored);
    }
  });
  fs::remove_all(old / kStorageFolder, ignored);
  fs::remove(old / kDescriptionFile, ignored);
  fs::remove(old, ignored);
}

// Called when all is written: the disk can then put the files out together.
void syncAll(const fs::path& folder, const RecordingInfo& info) {
  for (const FileInfo& file : info.files) {
    if (!file.pack) syncPath(storagePath(folder, file.storageId));
  }
  for (const PackInfo& pack : info.packs) syncPath(packPath(folder, pack.number));
  for (const fs::path& path : {descriptionPath(folder), folder / kStorageFolder, folder}) {
    syncPath(path);
  }
}

}  // namespace

void saveRecording(parquet::SignalPool& pool, const std::vector<SignalDescription>& descriptions,
                   const Path& folder) {
  saveRecording(pool, descriptions, folder, SaveOptions());
}

void saveRecording(parquet::SignalPool& pool, const std::vector<SignalDescription>& descriptions,
                   const Path& folder, const SaveOptions& options) {
  const fs::path target = canonicalFolder(folder.toFilesystem());
  checkReplaceable(target);
  RecordingInfo info = snapshotOf(pool, descriptions);
  const fs::path working = pool.getParquetDirectory().toFilesystem();

  const Path beside = Path::fromFilesystem(target.parent_path());
  TemporaryFolder fresh(
      fileSystem::uniqueName(beside, toUtf16(target.filename().string() + ".saving-"), u"")
          .toFilesystem());
  fs::create_directories(fresh.path() / kStorageFolder);
  ContentSaver saver(working, parquet::PoolAccess::of(pool).sharedStore(),
                     fresh.path() / kStorageFolder, options);
  for (FileInfo& file : info.files) saver.save(file);
  info.packs = saver.finish();
  info.formatVersion = info.packs.empty() ? 1 : kFormatVersion;
  writeNewFile(descriptionPath(fresh.path()), writeRecordingJson(info));

  if (fs::exists(target)) {
    linkForeign(target, fresh.path());
    fs::permissions(fresh.path(), fs::status(target).permissions());
  }

  if (options.sync) syncAll(fresh.path(), info);
  const fs::path old = replaceFolder(fresh, target, options.sync);
  if (!old.empty()) disposeOf(old, target);
}

}  // namespace kyr::recording
