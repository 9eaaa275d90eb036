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
  info.packs = saver.finish();
  // Only a recording that is being replaced matters from here on.
  if (lent && !lent->isAt(target)) lent = nullptr;
  if (lent) keepUnsaved(*parquet::PoolAccess::of(pool).sharedStore(), info);
  const ReplacedRecording old =
      publishRecording(fresh, std::move(info), target, {options.replaces, options.sync});
  if (lent) lent->follow();
  disposeOf(old, target);
}

}  // namespace kyr::recording
