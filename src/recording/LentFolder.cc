#include "recording/LentFolder.h"

#include <algorithm>
#include <utility>

#include "recording/Checksum.h"
#include "recording/ContentChecks.h"
#include "recording/RecordingFolder.h"

namespace kyr::recording {

LentFolder::LentFolder(std::shared_ptr<const OpenFolder> folder,
                       std::shared_ptr<const RecordingInfo> info)
    : folder_(std::move(folder)),
      attributes_(info->attributes),
      files_(std::make_unique<ContentFiles>(folder_, /*checks=*/true, /*maxOpenFiles=*/0)) {
  files_->describe(std::move(info), /*isLive=*/false);
}

void LentFolder::lend(parquet::SharedStore& store, const std::vector<SignalInfo>& signals) {
  for (const SignalInfo& signal : signals) {
    if (signal.timeStorageId) offer(store, *signal.timeStorageId, signal, /*isTime=*/true);
    if (signal.dataStorageId) offer(store, *signal.dataStorageId, signal, /*isTime=*/false);
  }
}

void LentFolder::splitTimes(std::vector<SignalInfo>& signals, int& newId) {
  std::map<int, int> timesOf;  // by the file
  for (SignalInfo& signal : signals) {
    if (signal.timeStorageId || !hasTimeColumn(signal)) continue;
    const int file = *signal.dataStorageId;
    const auto [known, isNew] = timesOf.try_emplace(file, newId);
    if (isNew) timeColumns_[newId++] = file;
    splitFiles_.insert(file);
    signal.timeStorageId = known->second;
  }
}

bool LentFolder::hasTimeColumn(const SignalInfo& signal) {
  if (!signal.dataStorageId || files_->fileInfo(*signal.dataStorageId).pack) return false;
  return signal.timeSpan || files_->open(*signal.dataStorageId)->hasTimes();
}

// Signals that share a content mostly ask the same of it.
void LentFolder::offer(parquet::SharedStore& store, int storageId, const SignalInfo& signal,
                       bool isTime) {
  std::vector<Use>& uses = contents_[storageId].uses;
  const bool isKnown = std::any_of(uses.begin(), uses.end(), [&](const Use& use) {
    return use.isTime == isTime && use.signal.rowCount == signal.rowCount &&
           (isTime ||
            (use.signal.category == signal.category && use.signal.dataType == signal.dataType));
  });
  if (isKnown) return;
  uses.push_back({signal, isTime});
  if (uses.size() > 1) return;
  const auto column = timeColumns_.find(storageId);
  const FileInfo& file =
      files_->fileInfo(column == timeColumns_.end() ? storageId : column->second);
  if (!file.pack || packs_.insert(*file.pack).second) files_->requireFile(file);
  const bool isAsRecorded = column == timeColumns_.end() && splitFiles_.count(storageId) == 0;
  store.offer(storageId,
              {file.rowCount, isAsRecorded ? summaryOf(file) : parquet::ContentSummary(),
               [lent = shared_from_this(), storageId] { return lent->open(storageId); }});
}

std::shared_ptr<parquet::ContentReader> LentFolder::open(int storageId) {
  using View = parquet::ContentReader::View;
  Lent& lent = contents_.at(storageId);
  const auto column = timeColumns_.find(storageId);
  const bool isColumn = column != timeColumns_.end();
  auto content = files_->open(isColumn ? column->second : storageId);
  if (lent.checked.lock() != content->columns()) {
    for (const Use& use : lent.uses) check(*content, {use.signal, use.isTime && !isColumn});
    lent.checked = content->columns();
  }
  if (isColumn) return parquet::ContentReader::viewOf(*content, View::times);
  if (splitFiles_.count(storageId) == 0) return content;
  return parquet::ContentReader::viewOf(*content, View::samples);
}

void LentFolder::check(const parquet::ContentReader& content, const ContentUse& use) const {
  files_->requireUse(content, use);
  const std::string fault = use.isTime ? "" : countFault(use.signal, content.rows());
  if (fault.empty()) return;
  throw DamagedError(fmt::format("{}: signal {} \"{}\": {}: its rows cannot be read",
                                 content.file().path().string(), use.signal.signalId,
                                 use.signal.name, fault));
}

const FileInfo* LentFolder::wholeFile(int storageId) const {
  const bool isWhole = contents_.count(storageId) > 0 && timeColumns_.count(storageId) == 0 &&
                       splitFiles_.count(storageId) == 0;
  const FileInfo* const file = isWhole ? &files_->fileInfo(storageId) : nullptr;
  return file != nullptr && !file->pack ? file : nullptr;
}

std::filesystem::path LentFolder::pathOf(const FileInfo& file) const {
  return path() / kStorageFolder / files_->nameOf(file);
}

bool LentFolder::isAt(const std::filesystem::path& folder) const {
  const auto there = FileState::ofName(folder);
  return there && there->isSameFile(folder_->state());
}

void LentFolder::follow() {
  const auto folder = std::make_shared<const OpenFolder>(folder_->path(), folder_->links());
  auto files = std::make_unique<ContentFiles>(folder, /*checks=*/true, /*maxOpenFiles=*/0);
  const auto info = std::make_shared<const RecordingInfo>(describeRecording(*folder));
  files->describe(info, /*isLive=*/false);
  attributes_ = info->attributes;
  folder_ = folder;
  files_ = std::move(files);
  timeColumns_.clear();
  splitFiles_.clear();
}

}  // namespace kyr::recording
