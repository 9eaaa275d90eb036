#include "recording/RecordingSnapshot.h"

#include <arrow/status.h>
#include <fmt/format.h>

#include <stdexcept>

#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/StreamableSignal.h"
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

// Type and category, which the pool's signal knows; and whether all of it was written.
template <typename PoolSignal>
void takeTypes(parquet::SignalPool& pool, const PoolSignal& stored, SignalInfo& signal) {
  const ::arrow::Status status = stored.writeStatus();
  if (!status.ok()) {
    throw std::runtime_error(fmt::format("signal {}: its samples were not written: {}",
                                         signal.signalId, status.message()));
  }
  if (stored.hasData() && stored.getParquetDirectory() != pool.getParquetDirectory()) {
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

void takeTypes(parquet::SignalPool& pool, SignalInfo& signal) {
  if (const auto stored = pool.getSignal(signal.signalId)) {
    takeTypes(pool, *stored, signal);
  } else {
    takeTypes(pool, *pool.getStreamableSignal(signal.signalId), signal);
  }
}

}  // namespace

void InfoBuilder::add(SignalInfo signal) {
  for (const auto& id : {signal.timeStorageId, signal.dataStorageId}) {
    if (!id) continue;
    const FileFacts& facts = factsOf(signal.signalId, *id, /*isTime=*/id == signal.timeStorageId);
    signal.rowCount = facts.rowCount;
    signal.compression = facts.compression;
    if (facts.timeSpan) signal.timeSpan = facts.timeSpan;
  }
  signals_[signal.signalId] = std::move(signal);
}

const InfoBuilder::FileFacts& InfoBuilder::factsOf(int signalId, int storageId, bool isTime) {
  const auto key = std::make_pair(storageId, isTime);
  const auto known = facts_.find(key);
  if (known != facts_.end()) return known->second;
  const fs::path path = directory_ / std::to_string(storageId);
  if (!fs::exists(path)) {
    throw std::runtime_error(
        fmt::format("signal {}: its file {} is missing", signalId, path.string()));
  }
  const StoredFile file(path);
  const std::string& timeColumn = isTime ? parquet::columnNames::data : parquet::columnNames::time;
  FileFacts facts;
  facts.rowCount = file.rowCount();
  facts.compression = file.compression(parquet::columnNames::data);
  if (file.hasColumn(timeColumn)) facts.timeSpan = file.span(timeColumn);
  files_.emplace(storageId, file.rowCount());
  return facts_.emplace(key, std::move(facts)).first->second;
}

RecordingInfo InfoBuilder::take(std::string records) {
  RecordingInfo info;
  info.formatVersion = kFormatVersion;
  std::vector<SignalRecord> stored;
  for (auto& [id, signal] : signals_) {
    if (signal.timeStorageId || signal.dataStorageId) {
      stored.push_back({id, signal.timeStorageId.value_or(kNoStorage),
                        signal.dataStorageId.value_or(kNoStorage)});
    }
    info.signals.push_back(std::move(signal));
  }
  info.records = records.empty() ? parquet::writeSignalRecords(stored) : std::move(records);
  for (const auto& [id, rows] : files_) info.files.push_back({id, 0, rows, ""});
  return info;
}

RecordingInfo snapshotOf(parquet::SignalPool& pool,
                         const std::vector<SignalDescription>& descriptions) {
  std::string records = pool.serializeSignalRecords();
  std::map<int, SignalInfo> signals;
  for (const SignalDescription& description : descriptions) {
    SignalInfo signal;
    static_cast<SignalDescription&>(signal) = description;
    if (!signals.emplace(description.signalId, std::move(signal)).second) {
      throw std::invalid_argument(
          fmt::format("signal {} is described twice", description.signalId));
    }
  }
  parquet::readSignalRecords(records, [&](const SignalRecord& record) {
    SignalInfo& signal = signals[record.signalId];
    if (signal.name.empty()) signal.name = fmt::format("signal {}", record.signalId);
    signal.signalId = record.signalId;
    signal.timeStorageId = storageIdOf(record.timeStorageId);
    signal.dataStorageId = storageIdOf(record.dataStorageId);
  });
  InfoBuilder builder(pool.getParquetDirectory().toFilesystem());
  for (auto& [id, signal] : signals) {
    if (pool.checkSignalExists(id)) takeTypes(pool, signal);
    builder.add(std::move(signal));
  }
  return builder.take(std::move(records));
}

}  // namespace kyr::recording
