#include <fmt/format.h>

#include <memory>
#include <set>
#include <stdexcept>
#include <utility>

#include "kyr/recording/Recording.h"
#include "recording/Attributes.h"
#include "recording/ContentSaver.h"
#include "recording/FolderFiles.h"
#include "recording/LentFolder.h"
#include "recording/LockedFolder.h"
#include "recording/PublishRecording.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingSnapshot.h"
#include "recording/SignalTable.h"
#include "signals/SignalPoolImpl.h"

namespace kyr::recording {

namespace fs = std::filesystem;
namespace {

void checkTarget(const fs::path& folder, bool replaces) {
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
  if (fs::is_empty(folder)) return;
  if (!fs::exists(descriptionPath(folder))) {
    throw std::runtime_error(
        fmt::format("{}: is neither empty nor a recording, and is left as it is", folder.string()));
  }
  if (!replaces) {
    throw std::runtime_error(
        fmt::format("{}: is a recording already, and is left as it is", folder.string()));
  }
}

// Calls \p visit with the name of each entry of a recording's folder that is not the recording's.
template <typename Visit>
void forEachForeign(const fs::path& folder, Visit&& visit) {
  std::error_code ignored;
  for (fs::directory_iterator it(folder, ignored), end; it != end; it.increment(ignored)) {
    const fs::path name = it->path().filename();
    if (name != kDescriptionFile && name != kSignalsFile && name != kStorageFolder) visit(name);
  }
}

// Other entries of a recording's folder are in the new one from the start, as links to the same
// files: a save that is killed loses none of them. Those that cannot be linked are moved by
// disposeOf().
void linkForeign(const fs::path& folder, const fs::path& fresh) {
  constexpr auto kLinks = fs::copy_options::recursive | fs::copy_options::create_hard_links |
                          fs::copy_options::copy_symlinks;
  forEachForeign(folder, [&](const fs::path& name) {
    std::error_code error;
    fs::copy(folder / name, fresh / name, kLinks, error);
    if (error) fs::remove_all(fresh / name, error);
  });
}

// Called when all is written, so that the disk can write the files together.
void syncAll(const fs::path& folder, const RecordingInfo& info) {
  for (const FileInfo& file : info.files) {
    if (!file.pack) syncPath(storagePath(folder, file.storageId));
  }
  for (const PackInfo& pack : info.packs) syncPath(packPath(folder, pack.number));
  for (const fs::path& path :
       {descriptionPath(folder), folder / kSignalsFile, folder / kStorageFolder, folder}) {
    syncPath(path);
  }
}

// The recording that the pool reads in place; null if there is none.
std::shared_ptr<LentFolder> lentTo(const parquet::SignalPool& pool) {
  const auto store = parquet::PoolAccess::of(pool).sharedStore();
  return store ? std::dynamic_pointer_cast<LentFolder>(store->lender()) : nullptr;
}

Attributes attributesFor(const SaveOptions& options, const std::shared_ptr<LentFolder>& lent) {
  if (options.attributes) return normalised(*options.attributes);
  return lent ? lent->attributes() : Attributes();
}

// Contents of signals that left the pool, but are still used, are not in the new recording.
void keepUnsaved(parquet::SharedStore& store, const RecordingInfo& info) {
  std::set<int> saved;
  for (const FileInfo& file : info.files) saved.insert(file.storageId);
  store.forEachContent([&](parquet::Content& content) {
    if (saved.count(content.id()) == 0) content.moveToOwnFile();
  });
}

}  // namespace

fs::path publishRecording(LockedFolder& fresh, RecordingInfo info, const fs::path& target,
                          const ReplaceOptions& options) {
  info.formatVersion = kFormatVersion;
  writeDescription(Folder(fresh.path()), info, /*syncs=*/false);
  if (fs::exists(target)) {
    linkForeign(target, fresh.path());
    fs::permissions(fresh.path(), fs::status(target).permissions());
  }
  if (options.sync) syncAll(fresh.path(), info);
  return replaceFolder(fresh, target, options);
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
  for (const char* name : {kDescriptionFile, kSignalsFile}) fs::remove(old / name, ignored);
  fs::remove(old, ignored);
}

void saveRecording(parquet::SignalPool& pool, const std::vector<SignalDescription>& descriptions,
                   const Path& folder) {
  saveRecording(pool, descriptions, folder, SaveOptions());
}

void saveRecording(parquet::SignalPool& pool, const std::vector<SignalDescription>& descriptions,
                   const Path& folder, const SaveOptions& options) {
  const fs::path target = canonicalFolder(folder.toFilesystem());
  checkTarget(target, options.replaces);
  auto lent = lentTo(pool);
  Attributes attributes = attributesFor(options, lent);
  RecordingInfo info = snapshotOf(pool, descriptions);
  info.attributes = std::move(attributes);

  LockedFolder fresh(target.string() + kSavingInfix);
  fs::create_directory(fresh.path() / kStorageFolder);
  ContentSaver saver(filesOf(pool), parquet::PoolAccess::of(pool).sharedStore(), lent,
                     fresh.path() / kStorageFolder, options);
  for (FileInfo& file : info.files) saver.save(file);
  // Only a recording that is being replaced matters from here on.
  if (lent && !lent->isAt(target)) lent = nullptr;
  if (lent) keepUnsaved(*parquet::PoolAccess::of(pool).sharedStore(), info);
  info.packs = saver.finish();
  const fs::path old =
      publishRecording(fresh, std::move(info), target, {options.replaces, options.sync});
  if (lent) lent->follow();
  if (!old.empty()) disposeOf(old, target);
}

}  // namespace kyr::recording
