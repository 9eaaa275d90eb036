#include <arrow/api.h>
#include <fmt/format.h>

#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <utility>

#include "files/pack/PackFile.h"
#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/SchemaBuilder.h"
#include "kyr/recording/RecordingInfo.h"
#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"
#include "recording/StoredFile.h"
#include "signals/SignalRecords.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::recording {

namespace fs = std::filesystem;
namespace columnNames = parquet::columnNames;

namespace {

// The same types, whatever the child fields are called (Parquet calls a list's child "element").
bool sameShape(const ::arrow::DataType& a, const ::arrow::DataType& b) {
  if (a.id() != b.id() || a.num_fields() != b.num_fields()) return false;
  for (int i = 0; i < a.num_fields(); ++i) {
    if (!sameShape(*a.field(i)->type(), *b.field(i)->type())) return false;
  }
  return true;
}

bool sameColumns(const ::arrow::Schema& a, const ::arrow::Schema& b) {
  if (a.num_fields() != b.num_fields()) return false;
  for (int i = 0; i < a.num_fields(); ++i) {
    if (a.field(i)->name() != b.field(i)->name() ||
        !sameShape(*a.field(i)->type(), *b.field(i)->type())) {
      return false;
    }
  }
  return true;
}

std::uint64_t product(const std::uint64_t* extents, std::int64_t count) {
  std::uint64_t result = 1;
  for (std::int64_t i = 0; i < count; ++i) result *= extents[i];
  return result;
}

class Verifier {
 public:
  explicit Verifier(const Path& folder)
      : folder_(folder.toFilesystem()), info_(describeRecording(folder)) {}

  std::vector<std::string> run() {
    for (const PackInfo& pack : info_.packs) {
      try {
        checkPack(pack);
      } catch (const std::exception& error) {
        fault("{}/{}: {}", kStorageFolder, packName(pack.number), error.what());
      }
    }
    for (const FileInfo& file : info_.files) {
      files_[file.storageId] = &file;
      try {
        if (file.pack) {
          checkPacked(file);
        } else {
          checkFile(file);
        }
      } catch (const std::exception& error) {
        fault("{}: {}", label(file.storageId), error.what());
      }
    }
    checkRecords();
    for (const SignalInfo& signal : info_.signals) {
      try {
        checkSignal(signal);
      } catch (const std::exception& error) {
        fault("signal {} \"{}\": {}", signal.signalId, signal.name, error.what());
      }
    }
    checkNamed();
    return std::move(faults_);
  }

 private:
  template <typename... Args>
  void fault(fmt::format_string<Args...> format, Args&&... args) {
    faults_.push_back(fmt::format(format, std::forward<Args>(args)...));
  }

  std::string label(int storageId) const { return storagePath("", storageId).string(); }

  void checkFile(const FileInfo& file) {
    const fs::path path = storagePath(folder_, file.storageId);
    if (isSound(path, label(file.storageId), file)) sound_.insert(file.storageId);
  }

  // The file can be read; a wrong number of rows is told, and no obstacle to look further.
  template <typename Expected>
  bool isSound(const fs::path& path, const std::string& name, const Expected& file) {
    if (!fs::exists(path)) {
      fault("{}: missing", name);
      return false;
    }
    const FileDigest digest = digestFile(path);
    if (digest.size != file.size) {
      fault("{}: {} bytes long, expected {}", name, digest.size, file.size);
      return false;
    }
    if (digest.checksum != file.checksum) {
      fault("{}: damaged: its checksum is {}, expected {}", name, digest.checksum, file.checksum);
      return false;
    }
    const StoredFile stored(path);
    if (stored.rowCount() != file.rowCount) {
      fault("{}: holds {} rows, expected {}", name, stored.rowCount(), file.rowCount);
    }
    return true;
  }

  // Runs of rows of the same storage id in a pack.
  struct Run {
    std::uint64_t first = 0;
    std::uint64_t count = 0;
  };

  void checkPack(const PackInfo& pack) {
    const fs::path path = packPath(folder_, pack.number);
    if (!isSound(path, fs::path(kStorageFolder) / packName(pack.number), pack)) return;
    std::map<int, Run>& runs = runs_[pack.number];
    std::uint64_t row = 0;
    int last = 0;
    StoredFile(path).forEachRowGroup({parquet::kPackColumn}, [&](const auto& columns) {
      for (const auto& chunk : columns[0]->chunks()) {
        const auto& ids = dynamic_cast<const ::arrow::Int32Array&>(*chunk);
        for (std::int64_t i = 0; i < ids.length(); ++i, ++row) {
          const auto [run, isNew] = runs.try_emplace(ids.Value(i), Run{row, 0});
          if (!isNew && last != ids.Value(i)) {
            throw std::runtime_error(
                fmt::format("the rows of storage id {} do not follow each other", ids.Value(i)));
          }
          last = ids.Value(i);
          ++run->second.count;
        }
      }
    });
  }

  void checkPacked(const FileInfo& file) {
    const auto runs = runs_.find(*file.pack);
    if (runs == runs_.end()) return;  // told of the pack
    const auto run = runs->second.find(file.storageId);
    const Run found = run == runs->second.end() ? Run() : run->second;
    if (found.count != file.rowCount || (found.count > 0 && found.first != file.firstRow)) {
      return fault("{}/{}: storage id {} has {} rows from {} on, expected {} from {} on",
                   kStorageFolder, packName(*file.pack), file.storageId, found.count, found.first,
                   file.rowCount, file.firstRow);
    }
    sound_.insert(file.storageId);
  }

  // The records' text, which hosts restore a pool from, says the same as the signals.
  void checkRecords() {
    if (info_.formatVersion > 1) return;  // there are none
    std::map<int, std::pair<int, int>> recorded;
    try {
      parquet::readSignalRecords(info_.records, [&](const parquet::SignalRecord& record) {
        recorded[record.signalId] = {record.timeStorageId, record.dataStorageId};
      });
    } catch (const std::exception& error) {
      return fault("{}: records cannot be read: {}", kDescriptionFile, error.what());
    }
    for (const SignalInfo& signal : info_.signals) {
      const std::pair<int, int> ids{signal.timeStorageId.value_or(parquet::kNoStorage),
                                    signal.dataStorageId.value_or(parquet::kNoStorage)};
      const bool stored = signal.timeStorageId || signal.dataStorageId;
      const auto record = recorded.find(signal.signalId);
      if (stored != (record != recorded.end()) || (stored && record->second != ids)) {
        fault("{}: signal {} \"{}\" and its record name different files", kDescriptionFile,
              signal.signalId, signal.name);
      }
      recorded.erase(signal.signalId);
    }
    for (const auto& [id, ids] : recorded) {
      fault("{}: a record of signal {}, which is not described", kDescriptionFile, id);
    }
  }

  // The signal's file, if it was found sound; its own faults are told already. Opened anew for each
  // signal: a recording may have more files than a process may hold open.
  std::optional<StoredFile> soundFile(const std::optional<int>& storageId) const {
    if (!storageId || sound_.count(*storageId) == 0) return std::nullopt;
    const FileInfo& file = *files_.at(*storageId);
    if (!file.pack) return StoredFile(storagePath(folder_, *storageId));
    return StoredFile(packPath(folder_, *file.pack), file.firstRow, file.rowCount);
  }

  void checkSignal(const SignalInfo& signal) {
    const auto time = soundFile(signal.timeStorageId);
    const auto data = soundFile(signal.dataStorageId);
    if (time) checkColumns(signal, *time, *signal.timeStorageId, Scalar, Double);
    if (!data) return;
    checkColumns(signal, *data, *signal.dataStorageId, signal.category, signal.dataType);
    if (data->rowCount() != signal.rowCount) {
      fault("signal {} \"{}\": {} samples in {}, expected {}", signal.signalId, signal.name,
            data->rowCount(), label(*signal.dataStorageId), signal.rowCount);
    }
    if (time && time->rowCount() != data->rowCount()) {
      fault("signal {} \"{}\": {} times in {}, but {} samples in {}", signal.signalId, signal.name,
            time->rowCount(), label(*signal.timeStorageId), data->rowCount(),
            label(*signal.dataStorageId));
    }
    checkShapes(signal, *data);
  }

  void checkColumns(const SignalInfo& signal, const StoredFile& file, int storageId,
                    KYRSignalCategory category, KYRSignalDataType type) {
    const auto expected = parquet::schemaBuilder::getSchema(
        category, type, file.hasColumn(columnNames::time), columnNames::data);
    if (!expected || !sameColumns(*file.schema(), *expected)) {
      fault("signal {} \"{}\": {} has the columns [{}], expected [{}]", signal.signalId,
            signal.name, label(storageId), columnsOf(*file.schema()),
            expected ? columnsOf(*expected) : "none");
    }
  }

  static std::string columnsOf(const ::arrow::Schema& schema) {
    std::string text;
    for (const auto& field : schema.fields()) {
      text += fmt::format("{}{}: {}", text.empty() ? "" : ", ", field->name(),
                          field->type()->ToString());
    }
    return text;
  }

  // Every sample has as many elements as its shape says.
  void checkShapes(const SignalInfo& signal, const StoredFile& data) {
    const bool variable = data.hasColumn(columnNames::dimension);
    const bool lists =
        data.hasColumn(columnNames::data) &&
        data.schema()->GetFieldByName(columnNames::data)->type()->id() == ::arrow::Type::LIST;
    if (!lists || (!variable && signal.dimensions.empty())) return;
    const std::vector<std::uint64_t> fixed(signal.dimensions.begin(), signal.dimensions.end());
    const std::uint64_t fixedLength =
        product(fixed.data(), static_cast<std::int64_t>(fixed.size()));
    std::vector<std::string> columns{columnNames::data};
    if (variable) columns.push_back(columnNames::dimension);
    std::uint64_t row = 0;
    data.forEachRowGroup(columns, [&](const auto& group) {
      const auto samples = combined(*group[0]);
      const auto shapes = variable ? combined(*group[1]) : nullptr;
      for (std::int64_t i = 0; i < samples->length(); ++i, ++row) {
        const std::uint64_t expected = shapes ? shapeProduct(*shapes, i) : fixedLength;
        const auto found = static_cast<std::uint64_t>(samples->value_length(i));
        if (found == expected) continue;
        throw std::runtime_error(
            fmt::format("sample {} has {} elements, its shape {}", row, found, expected));
      }
    });
  }

  static std::shared_ptr<::arrow::ListArray> combined(const ::arrow::ChunkedArray& column) {
    auto array = ::arrow::Concatenate(column.chunks());
    if (!array.ok()) throw std::runtime_error(array.status().message());
    return std::static_pointer_cast<::arrow::ListArray>(*array);
  }

  static std::uint64_t shapeProduct(const ::arrow::ListArray& shapes, std::int64_t row) {
    const auto& extents = static_cast<const ::arrow::UInt64Array&>(*shapes.values());
    return product(extents.raw_values() + shapes.value_offset(row), shapes.value_length(row));
  }

  void checkNamed() {
    std::set<std::string> named;
    for (const SignalInfo& signal : info_.signals) {
      for (const auto& id : {signal.timeStorageId, signal.dataStorageId}) {
        if (id) named.insert(std::to_string(*id));
      }
    }
    for (const FileInfo& file : info_.files) {
      if (named.count(std::to_string(file.storageId)) == 0) {
        fault("{}: no record names it", label(file.storageId));
        named.insert(std::to_string(file.storageId));
      }
    }
    for (const PackInfo& pack : info_.packs) named.insert(packName(pack.number));
    std::error_code missing;
    for (const auto& entry : fs::directory_iterator(folder_ / kStorageFolder, missing)) {
      const std::string name = entry.path().filename().string();
      if (named.count(name) == 0) fault("{}/{}: no record names it", kStorageFolder, name);
    }
  }

  fs::path folder_;
  RecordingInfo info_;
  std::map<int, const FileInfo*> files_;
  std::map<int, std::map<int, Run>> runs_;  // by pack and storage id
  std::set<int> sound_;
  std::vector<std::string> faults_;
};

}  // namespace

std::vector<std::string> verifyRecording(const Path& folder) { return Verifier(folder).run(); }

}  // namespace kyr::recording
