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
      lent_(std::move(info)),
      attributes_(lent_->attributes),
      files_(std::make_unique<ContentFiles>(folder_, /*checks=*/true, /*maxOpenFiles=*/0)) {
  files_->describe(lent_, /*isLive=*/false);
}

void LentFolder::splitTimes(const std::vector<const SignalInfo*>& signals, int& newId) {
  for (const SignalInfo* const signal : signals) {
    if (signal->timeStorageId || !hasTimeColumn(*signal)) continue;
    const int file = *signal->dataStorageId;
    if (!splitTimes_.try_emplace(file, newId).second) continue;
    timeColumns_[newId++] = file;
  }
}

bool LentFolder::hasTimeColumn(const SignalInfo& signal) {
  if (!signal.dataStorageId || files_->fileInfo(*signal.dataStorageId).pack) return false;
  return signal.timeSpan || files_->open(*signal.dataStorageId)->hasTimes();
}

std::optional<int> LentFolder::timeIdOf(const SignalInfo& signal) const {
  if (signal.timeStorageId || !signal.dataStorageId) return signal.timeStorageId;
  const auto split = splitTimes_.find(*signal.dataStorageId);
  return split == splitTimes_.end() ? std::nullopt : std::optional(split->second);
}

void LentFolder::lend(const std::vector<const SignalInfo*>& signals) {
  contents_.reserve(signals.size());
  for (const SignalInfo* const signal : signals) {
    if (const auto times = timeIdOf(*signal)) lend(*times, {signal, /*isTime=*/true});
    if (signal->dataStorageId) lend(*signal->dataStorageId, {signal, /*isTime=*/false});
  }
}

// Signals that share a content mostly ask the same of it.
void LentFolder::lend(int storageId, const Use& use) {
  const auto [place, isNew] = contents_.try_emplace(storageId);
  Lent& lent = place->second;
  if (!isNew) {
    const auto isSame = [&](const Use& known) {
      return known.isTime == use.isTime && known.signal->rowCount == use.signal->rowCount &&
             (use.isTime || (known.signal->category == use.signal->category &&
                             known.signal->dataType == use.signal->dataType));
    };
    if (isSame(lent.use) || std::any_of(lent.others.begin(), lent.others.end(), isSame)) return;
    lent.others.push_back(use);
    return;
  }
  lent.use = use;
  const FileInfo& file = fileOf(storageId);
  if (!file.pack || packs_.insert(*file.pack).second) files_->requireFile(file);
}

const FileInfo& LentFolder::fileOf(int storageId) const {
  const auto column = timeColumns_.find(storageId);
  return files_->fileInfo(column == timeColumns_.end() ? storageId : column->second);
}

std::optional<std::uint64_t> LentFolder::rowsOf(int id) const {
  return contents_.count(id) > 0 ? std::optional(fileOf(id).rowCount) : std::nullopt;
}

parquet::ContentSummary LentFolder::summaryOf(int id) const {
  const bool isAsRecorded = timeColumns_.count(id) == 0 && !isSplit(id);
  return isAsRecorded ? recording::summaryOf(files_->fileInfo(id)) : parquet::ContentSummary();
}

std::shared_ptr<parquet::ContentReader> LentFolder::open(int id) {
  using View = parquet::ContentReader::View;
  Lent& lent = contents_.at(id);
  const auto column = timeColumns_.find(id);
  const bool isColumn = column != timeColumns_.end();
  auto content = files_->open(isColumn ? column->second : id);
  if (lent.checked.lock() != content->columns()) {
    check(*content, {*lent.use.signal, lent.use.isTime && !isColumn});
    for (const Use& use : lent.others) check(*content, {*use.signal, use.isTime && !isColumn});
    lent.checked = content->columns();
  }
  if (isColumn) return parquet::ContentReader::viewOf(*content, View::times);
  return isSplit(id) ? parquet::ContentReader::viewOf(*content, View::samples) : content;
}

void LentFolder::check(const parquet::ContentReader& content, const ContentUse& use) {
  const UseOfColumns asked{content.columns(), use.isTime, use.signal.category, use.signal.dataType};
  if (asked != checkedLast_) {
    files_->requireUse(content, use);
    checkedLast_ = asked;
  }
  const std::string fault = use.isTime ? "" : countFault(use.signal, content.rows());
  if (fault.empty()) return;
  throw DamagedError(fmt::format("{}: signal {} \"{}\": {}: its rows cannot be read",
                                 content.file().path().string(), use.signal.signalId,
                                 use.signal.name, fault));
}

const FileInfo* LentFolder::wholeFile(int storageId) const {
  const bool isWhole =
      contents_.count(storageId) > 0 && timeColumns_.count(storageId) == 0 && !isSplit(storageId);
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
  splitTimes_.clear();
}

}  // namespace kyr::recording
