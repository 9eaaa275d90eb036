#include "recording/RecordingSnapshot.h"

#include <arrow/api.h>
#include <arrow/util/compression.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>

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

void InfoBuilder::add(SignalInfo signal) {
  for (const auto& id : {signal.timeStorageId, signal.dataStorageId}) {
    if (!id) continue;
    const FileFacts& facts = factsOf(signal.signalId, *id, /*isTime=*/id == signal.timeStorageId);
    signal.rowCount = facts.rowCount;
    signal.compression = facts.compression;
    if (facts.timeSpan) signal.timeSpan = facts.timeSpan;
  }
  const int id = signal.signalId;
  signals_.insert_or_assign(signals_.end(), id, std::move(signal));
}

const InfoBuilder::FileFacts& InfoBuilder::factsOf(int signalId, int storageId, bool isTime) {
  const std::int64_t key = std::int64_t{storageId} * 2 + (isTime ? 1 : 0);
  const auto known = facts_.find(key);
  if (known != facts_.end()) return known->second;
  const auto content = store_ ? store_->find(storageId) : nullptr;
  const parquet::ContentSummary* const summary = content ? content->summary() : nullptr;
  FileFacts facts;
  if (content && !content->hasOwnFile()) {
    facts.rowCount = content->rows();
    facts.compression = ::arrow::util::Codec::GetCodecAsString(content->codec());
    facts.timeSpan = isTime ? spanOf(*content, parquet::columnNames::data, summary)
                            : spanOf(*content, parquet::columnNames::time, nullptr);
  } else {
    facts = factsOfFile(signalId, storageId, isTime, summary);
  }
  FileInfo file;
  file.storageId = storageId;
  file.rowCount = facts.rowCount;
  if (summary != nullptr) describeRows(file, *summary);
  files_.emplace_hint(files_.end(), storageId, std::move(file));
  return facts_.emplace(key, std::move(facts)).first->second;
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
  facts.compression =
      ::arrow::util::Codec::GetCodecAsString(file->codec(parquet::columnNames::data));
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
  info.signals.reserve(signals_.size());
  for (auto& [id, signal] : signals_) info.signals.push_back(std::move(signal));
  info.files.reserve(files_.size());
  for (auto& [id, file] : files_) info.files.push_back(std::move(file));
  return info;
}

RecordingInfo snapshotOf(parquet::SignalPool& pool,
                         const std::vector<SignalDescription>& descriptions) {
  parquet::SignalPoolImpl& impl = parquet::PoolAccess::of(pool);
  const std::vector<SignalRecord> records = impl.finishedRecords();
  std::map<int, SignalInfo> signals;
  for (const SignalDescription& description : descriptions) {
    SignalInfo signal;
    static_cast<SignalDescription&>(signal) = description;
    if (!signals.emplace(description.signalId, std::move(signal)).second) {
      throw std::invalid_argument(
          fmt::format("signal {} is described twice", description.signalId));
    }
  }
  for (const SignalRecord& record : records) {
    SignalInfo& signal = signals[record.signalId];
    if (signal.name.empty()) signal.name = fmt::format("signal {}", record.signalId);
    signal.signalId = record.signalId;
    signal.timeStorageId = storageIdOf(record.timeStorageId);
    signal.dataStorageId = storageIdOf(record.dataStorageId);
  }
  InfoBuilder builder(filesOf(pool), impl.sharedStore());
  for (auto& [id, signal] : signals) {
    if (impl.checkSignalExists(id)) takeTypes(impl, signal);
    builder.add(std::move(signal));
  }
  return builder.take();
}

}  // namespace kyr::recording
