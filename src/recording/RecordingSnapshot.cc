#include "recording/RecordingSnapshot.h"

#include <arrow/api.h>
#include <arrow/util/compression.h>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <type_traits>

#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/StreamableSignal.h"
#include "recording/Checksum.h"
#include "recording/StorageNames.h"
#include "recording/TimeSpans.h"
#include "safe/Content.h"
#include "schema/TypeNames.h"
#include "signals/SignalPoolImpl.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::recording {

namespace fs = std::filesystem;
using parquet::kNoStorage;
using parquet::SignalRecord;

namespace {

std::optional<int> storageIdOf(int id) {
  return id == kNoStorage ? std::nullopt : std::optional(id);
}

// Type and category, which the pool's signal knows; and whether all of it was written.
template <typename PoolSignal>
void takeTypes(const Path& directory, const PoolSignal& stored, SignalInfo& signal) {
  const ::arrow::Status status = stored.writeStatus();
  if (!status.ok()) {
    throw std::runtime_error(fmt::format("signal {}: its samples were not written: {}",
                                         signal.signalId, status.message()));
  }
  if (stored.hasData() && stored.getParquetDirectory() != directory) {
    throw std::runtime_error(fmt::format("signal {} is stored in {}, not in the pool's directory",
                                         signal.signalId, stored.getParquetDirectory().toNarrow()));
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

void takeTypes(parquet::SignalPoolImpl& pool, SignalInfo& signal) {
  const Path& directory = pool.getParquetDirectory();
  if (const auto stored = pool.getSignal(signal.signalId)) {
    takeTypes(directory, *stored, signal);
  } else {
    takeTypes(directory, *pool.getStreamableSignal(signal.signalId), signal);
  }
}

// Sorts items, or pointers to them, which mostly are in order.
template <typename Item, typename Owner>
void sortById(std::vector<Item>& items, int Owner::*id) {
  const auto isLess = [id](const Item& a, const Item& b) {
    if constexpr (std::is_pointer_v<Item>) {
      return a->*id < b->*id;
    } else {
      return a.*id < b.*id;
    }
  };
  if (!std::is_sorted(items.begin(), items.end(), isLess)) {
    std::stable_sort(items.begin(), items.end(), isLess);
  }
}

bool isKnown(const parquet::ContentSummary* summary) {
  return summary != nullptr && !summary->digest.empty();
}

// \param times  the summary of a column "data" of times
std::optional<TimeSpan> spanOf(const parquet::ContentSummary& times) {
  if (!times.minimum || !times.maximum) return std::nullopt;
  return TimeSpan{*times.minimum, *times.maximum};
}

// Smallest and largest of a column of times that has no file in the pool's directory.
std::optional<TimeSpan> spanOf(parquet::Content& content, const std::string& column,
                               const parquet::ContentSummary* summary) {
  if (isKnown(summary)) return spanOf(*summary);
  if (content.schema().schema->GetFieldIndex(column) < 0) return std::nullopt;
  constexpr std::uint64_t kPieceRows = 65536;
  std::optional<TimeSpan> span;
  for (std::uint64_t from = 0; from < content.rows(); from += kPieceRows) {
    const auto to = std::min(content.rows(), from + kPieceRows);
    for (const auto& table : content.read(from, to)) {
      const auto times = table->GetColumnByName(column);
      if (times->type()->id() != ::arrow::Type::DOUBLE) return {};
      for (const auto& chunk : times->chunks()) {
        const auto& values = static_cast<const ::arrow::DoubleArray&>(*chunk);
        for (std::int64_t i = 0; i < values.length(); ++i) noteTime(span, values.Value(i));
      }
    }
  }
  return span;
}

}  // namespace

FileOf filesOf(parquet::SignalPool& pool) {
  if (const auto store = parquet::PoolAccess::of(pool).sharedStore()) {
    return [store](int id) { return store->fileOf(id); };
  }
  return [directory = pool.getParquetDirectory().toFilesystem()](int id) {
    return directory / std::to_string(id);
  };
}

// Most signals have a content of their own.
void InfoBuilder::reserve(std::size_t signals) {
  signals_.reserve(signals);
  files_.reserve(signals + 1);
  facts_.reserve(signals + 1);
}

void InfoBuilder::add(SignalInfo signal) {
  for (const auto& id : {signal.timeStorageId, signal.dataStorageId}) {
    if (!id) continue;
    const FileFacts& facts = factsOf(signal.signalId, *id, /*isTime=*/id == signal.timeStorageId);
    signal.rowCount = facts.rowCount;
    signal.compression = ::arrow::util::Codec::GetCodecAsString(facts.codec);
    if (facts.timeSpan) signal.timeSpan = facts.timeSpan;
  }
  const auto& span = signal.timeSpan;
  if (span && !(std::isfinite(span->from) && std::isfinite(span->to))) signal.timeSpan.reset();
  signals_.push_back(std::move(signal));
}

const InfoBuilder::FileFacts& InfoBuilder::factsOf(int signalId, int storageId, bool isTime) {
  const std::int64_t key = std::int64_t{storageId} * 2 + (isTime ? 1 : 0);
  const auto [known, isNew] = facts_.try_emplace(key);
  FileFacts& facts = known->second;
  if (!isNew) return facts;
  const auto content = store_ ? store_->find(storageId) : nullptr;
  const parquet::ContentSummary* const summary = content ? content->summary() : nullptr;
  if (content && !content->hasOwnFile()) {
    facts.rowCount = content->rows();
    facts.codec = content->codec();
    facts.timeSpan = isTime ? spanOf(*content, parquet::columnNames::data, summary)
                            : spanOf(*content, parquet::columnNames::time, nullptr);
  } else {
    facts = factsOfFile(signalId, storageId, isTime, summary);
  }
  FileInfo& file = files_.emplace_back();
  file.storageId = storageId;
  file.rowCount = facts.rowCount;
  if (summary != nullptr) describeRows(file, *summary);
  return facts;
}

InfoBuilder::FileFacts InfoBuilder::factsOfFile(int signalId, int storageId, bool isTime,
                                                const parquet::ContentSummary* summary) const {
  const fs::path path = fileOf_(storageId);
  if (!fs::exists(path)) {
    throw std::runtime_error(
        fmt::format("signal {}: its file {} is missing", signalId, path.string()));
  }
  const auto file = openFile(path);
  const std::string& timeColumn = isTime ? parquet::columnNames::data : parquet::columnNames::time;
  FileFacts facts;
  facts.rowCount = file->rows();
  facts.codec = file->codec(parquet::columnNames::data);
  if (isTime && isKnown(summary)) {
    facts.timeSpan = spanOf(*summary);
  } else if (file->hasColumn(timeColumn)) {
    facts.timeSpan = spanOf(*file, timeColumn);
  }
  return facts;
}

RecordingInfo InfoBuilder::take() {
  RecordingInfo info;
  info.formatVersion = kFormatVersion;
  info.signals = std::move(signals_);
  info.files = std::move(files_);
  sortById(info.signals, &SignalInfo::signalId);
  sortById(info.files, &FileInfo::storageId);
  // A content that is both times and samples was looked at twice.
  const auto isSame = [](const FileInfo& a, const FileInfo& b) {
    return a.storageId == b.storageId;
  };
  info.files.erase(std::unique(info.files.begin(), info.files.end(), isSame), info.files.end());
  return info;
}

RecordingInfo snapshotOf(parquet::SignalPool& pool,
                         const std::vector<SignalDescription>& descriptions) {
  parquet::SignalPoolImpl& impl = parquet::PoolAccess::of(pool);
  std::vector<SignalRecord> records = impl.finishedRecords();
  sortById(records, &SignalRecord::signalId);
  std::vector<const SignalDescription*> described;
  described.reserve(descriptions.size());
  for (const SignalDescription& description : descriptions) described.push_back(&description);
  sortById(described, &SignalDescription::signalId);
  const auto isSame = [](const auto* a, const auto* b) { return a->signalId == b->signalId; };
  const auto twice = std::adjacent_find(described.begin(), described.end(), isSame);
  if (twice != described.end()) {
    throw std::invalid_argument(fmt::format("signal {} is described twice", (*twice)->signalId));
  }
  InfoBuilder builder(filesOf(pool), impl.sharedStore());
  builder.reserve(std::max(described.size(), records.size()));
  auto next = described.begin();
  auto record = records.begin();
  while (next != described.end() || record != records.end()) {
    SignalInfo signal;
    const bool isDescribed = next != described.end() &&
                             (record == records.end() || (*next)->signalId <= record->signalId);
    signal.signalId = isDescribed ? (*next)->signalId : record->signalId;
    if (isDescribed) static_cast<SignalDescription&>(signal) = **next++;
    if (record != records.end() && record->signalId == signal.signalId) {
      signal.timeStorageId = storageIdOf(record->timeStorageId);
      signal.dataStorageId = storageIdOf(record->dataStorageId);
      if (signal.name.empty()) signal.name = fmt::format("signal {}", signal.signalId);
      ++record;
    }
    if (impl.checkSignalExists(signal.signalId)) takeTypes(impl, signal);
    builder.add(std::move(signal));
  }
  return builder.take();
}

}  // namespace kyr::recording
