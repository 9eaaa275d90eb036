#include <arrow/status.h>
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <stdexcept>
#include <utility>

#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/platform/FileSystem.h"
#include "kyr/recording/Recording.h"
#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingFormat.h"
#include "recording/StoredFile.h"
#include "signals/SignalRecords.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::recording {

namespace fs = std::filesystem;
using parquet::kNoStorage;
using parquet::SignalRecord;

namespace {

std::optional<int> storageIdOf(int id) {
  return id == kNoStorage ? std::nullopt : std::optional(id);
}

// Collects what a recording of the pool says and which files it needs.
class Snapshot {
 public:
  Snapshot(parquet::SignalPool& pool, const std::vector<SignalDescription>& descriptions)
      : pool_(pool), directory_(pool.getParquetDirectory().toFilesystem()) {
    info_.formatVersion = kFormatVersion;
    info_.records = pool.serializeSignalRecords();
    for (const SignalDescription& description : descriptions) {
      SignalInfo signal;
      static_cast<SignalDescription&>(signal) = description;
      if (!signals_.emplace(description.signalId, std::move(signal)).second) {
        throw std::invalid_argument(
            fmt::format("signal {} is described twice", description.signalId));
      }
    }
    parquet::readSignalRecords(info_.records,
                               [this](const SignalRecord& record) { addStored(record); });
    for (auto& [id, signal] : signals_) {
      if (!signal.dataStorageId && pool_.checkSignalExists(id)) takeTypes(signal);
      info_.signals.push_back(std::move(signal));
    }
  }

  RecordingInfo& info() { return info_; }
  fs::path source(int storageId) const { return directory_ / std::to_string(storageId); }

 private:
  struct FileFacts {
    std::uint64_t rowCount = 0;
    std::string compression;
    std::optional<TimeSpan> timeSpan;
  };

  void addStored(const SignalRecord& record) {
    SignalInfo& signal = signals_[record.signalId];
    if (signal.name.empty()) signal.name = fmt::format("signal {}", record.signalId);
    signal.signalId = record.signalId;
    signal.timeStorageId = storageIdOf(record.timeStorageId);
    signal.dataStorageId = storageIdOf(record.dataStorageId);
    takeTypes(signal);
    for (const auto& id : {signal.timeStorageId, signal.dataStorageId}) {
      if (!id) continue;
      const FileFacts& facts = factsOf(record.signalId, *id, /*isTime=*/id == signal.timeStorageId);
      signal.rowCount = facts.rowCount;
      signal.compression = facts.compression;
      if (facts.timeSpan) signal.timeSpan = facts.timeSpan;
    }
  }

  // Type and category, which the pool's signal knows; and whether all of it was written.
  void takeTypes(SignalInfo& signal) {
    if (const auto stored = pool_.getSignal(signal.signalId)) {
      takeTypes(*stored, signal);
    } else {
      takeTypes(*pool_.getStreamableSignal(signal.signalId), signal);
    }
  }

  template <typename PoolSignal>
  void takeTypes(const PoolSignal& stored, SignalInfo& signal) const {
    const ::arrow::Status status = stored.writeStatus();
    if (!status.ok()) {
      throw std::runtime_error(fmt::format("signal {}: its samples were not written: {}",
                                           signal.signalId, status.message()));
    }
    if (stored.hasData() && stored.getParquetDirectory() != pool_.getParquetDirectory()) {
      throw std::runtime_error(fmt::format("signal {} is stored in {}, not in the pool's directory",
                                           signal.signalId,
                                           stored.getParquetDirectory().toNarrow()));
    }
    signal.dataType = stored.getDataType();
    signal.category = stored.getCategory();
    if (stored.hasData() &&
        (dataTypeName(signal.dataType).empty() || categoryName(signal.category).empty())) {
      throw std::runtime_error(fmt::format(
          "signal {}: data type {} or category {} is unknown: set both before saving",
          signal.signalId, static_cast<int>(signal.dataType), static_cast<int>(signal.category)));
    }
    // A signal that was only asked for has no category yet.
    if (categoryName(signal.category).empty()) signal.category = Scalar;
    if (dataTypeName(signal.dataType).empty()) signal.dataType = Double;
  }

  const FileFacts& factsOf(int signalId, int storageId, bool isTime) {
    const auto key = std::make_pair(storageId, isTime);
    const auto known = facts_.find(key);
    if (known != facts_.end()) return known->second;
    if (!fs::exists(source(storageId))) {
      throw std::runtime_error(
          fmt::format("signal {}: its file {} is missing", signalId, source(storageId).string()));
    }
    const StoredFile file(source(storageId));
    const std::string& timeColumn =
        isTime ? parquet::columnNames::data : parquet::columnNames::time;
    FileFacts facts;
    facts.rowCount = file.rowCount();
    facts.compression = file.compression(parquet::columnNames::data);
    if (file.hasColumn(timeColumn)) facts.timeSpan = file.span(timeColumn);
    if (files_.emplace(storageId, file.rowCount()).second) {
      info_.files.push_back({storageId, 0, file.rowCount(), ""});
    }
    return facts_.emplace(key, std::move(facts)).first->second;
  }

  parquet::SignalPool& pool_;
  fs::path directory_;
  RecordingInfo info_;
  std::map<int, SignalInfo> signals_;
  std::map<std::pair<int, bool>, FileFacts> facts_;
  std::map<int, std::uint64_t> files_;
};

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

}  // namespace

void saveRecording(parquet::SignalPool& pool, const std::vector<SignalDescription>& descriptions,
                   const Path& folder) {
  const fs::path target = canonicalFolder(folder.toFilesystem());
  checkReplaceable(target);
  Snapshot snapshot(pool, descriptions);
  RecordingInfo& info = snapshot.info();

  const Path beside = Path::fromFilesystem(target.parent_path());
  TemporaryFolder fresh(
      fileSystem::uniqueName(beside, toUtf16(target.filename().string() + ".saving-"), u"")
          .toFilesystem());
  fs::create_directories(fresh.path() / kStorageFolder);
  std::sort(info.files.begin(), info.files.end(),
            [](const FileInfo& a, const FileInfo& b) { return a.storageId < b.storageId; });
  for (FileInfo& file : info.files) {
    FileDigest digest =
        copyFile(snapshot.source(file.storageId), storagePath(fresh.path(), file.storageId));
    file.size = digest.size;
    file.checksum = std::move(digest.checksum);
  }
  writeTextFile(descriptionPath(fresh.path()), writeRecordingJson(info));

  if (fs::exists(target)) {
    linkForeign(target, fresh.path());
    fs::permissions(fresh.path(), fs::status(target).permissions());
  }

  // Flushed after all is written: the disk can then put the files out together.
  for (const FileInfo& file : info.files) syncToDisk(storagePath(fresh.path(), file.storageId));
  for (const fs::path& path :
       {descriptionPath(fresh.path()), fresh.path() / kStorageFolder, fresh.path()}) {
    syncToDisk(path);
  }
  const fs::path old = replaceFolder(fresh, target);
  if (!old.empty()) disposeOf(old, target);
}

}  // namespace kyr::recording
