#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include "files/ContentDigest.h"
#include "files/ContentReader.h"
#include "files/pack/PackSchema.h"
#include "kyr/parquet/ColumnNames.h"
#include "kyr/recording/RecordingInfo.h"
#include "recording/ContentChecks.h"
#include "recording/ContentFaults.h"
#include "recording/ContentFiles.h"
#include "recording/FolderFiles.h"
#include "recording/OpenFolder.h"
#include "recording/RecordingFolder.h"
#include "recording/SignalTable.h"
#include "signals/SignalRecords.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::recording {

namespace fs = std::filesystem;

namespace {

class Verifier {
 public:
  /// \param tellsFailures  whether failures of the system are told as faults, or thrown
  Verifier(OpenFolder folder, bool tellsFailures)
      : tellsFailures_(tellsFailures),
        folder_(std::make_shared<const OpenFolder>(std::move(folder))),
        info_(std::make_shared<const RecordingInfo>(describeRecording(*folder_))),
        contents_(folder_, /*checks=*/false, /*maxOpenFiles=*/0) {
    contents_.describe(info_, /*isLive=*/false);
  }

  void run(bool checksNames) {
    for (const PackInfo& pack : info_->packs) {
      telling([&] { return fmt::format("{}/{}", kStorageFolder, packName(pack.number)); },
              [&] { checkPack(pack); });
    }
    for (const FileInfo& file : info_->files) {
      telling([&] { return label(file.storageId); },
              [&] { file.pack ? checkPacked(file) : checkFile(file); });
    }
    checkRecords();
    for (const SignalInfo& signal : info_->signals) {
      telling([&] { return fmt::format("signal {} \"{}\"", signal.signalId, signal.name); },
              [&] { checkSignal(signal); });
    }
    if (checksNames) checkNamed();
  }

  // Readers do without the table, so that it is looked at only where everything is.
  void checkTable() {
    const std::string wrong = signalTableFault(*folder_, *info_);
    if (!wrong.empty()) fault("{}: {}", kSignalsFile, wrong);
  }

  std::vector<std::string> takeFaults() { return std::move(faults_); }

 private:
  template <typename... Args>
  void fault(fmt::format_string<Args...> format, Args&&... args) {
    faults_.push_back(fmt::format(format, std::forward<Args>(args)...));
  }

  // Makes what \p check throws a fault of what \p name tells.
  template <typename Name, typename Check>
  void telling(Name&& name, Check&& check) {
    try {
      check();
    } catch (const std::system_error& error) {
      if (!tellsFailures_) throw;
      fault("{}: {}", name(), error.what());
    } catch (const std::exception& error) {
      fault("{}: {}", name(), error.what());
    }
  }

  std::string nameOf(int storageId) const { return storageName(storageId, info_->formatVersion); }
  std::string label(int storageId) const {
    return fmt::format("{}/{}", kStorageFolder, nameOf(storageId));
  }

  void checkFile(const FileInfo& file) {
    if (isSound(nameOf(file.storageId), file)) sound_.insert(file.storageId);
  }

  // Whether the file is what recording.json says of it. If not, that is told.
  template <typename Expected>
  bool isSound(const std::string& name, const Expected& file) {
    const std::string label = (fs::path(kStorageFolder) / name).string();
    std::shared_ptr<const DiskFile> disk;
    try {
      disk = folder_->openStored(name);
    } catch (const std::system_error& error) {
      const auto& code = error.code();
      const bool isMissing = code == std::errc::no_such_file_or_directory;
      const bool isFile = code != std::errc::is_a_directory && code != std::errc::not_supported;
      if (!tellsFailures_ && !isMissing && isFile) throw;
      fault("{}: {}", label, isMissing ? "missing" : error.what());
      return false;
    }
    const FileDigest digest = digestOf(*disk);
    if (digest.size != file.size) {
      fault("{}: {} bytes long, expected {}", label, digest.size, file.size);
      return false;
    }
    if (digest.checksum != file.checksum) {
      fault("{}: damaged: its checksum is {}, expected {}", label, digest.checksum, file.checksum);
      return false;
    }
    checkBlocks(disk, label, file);
    const std::uint64_t rows = parquet::InputFile(disk).rows();
    if (rows != file.rowCount) fault("{}: holds {} rows, expected {}", label, rows, file.rowCount);
    return rows == file.rowCount;
  }

  // The file is sound; the checksums of its blocks may be wrong all the same.
  template <typename Expected>
  void checkBlocks(const std::shared_ptr<const DiskFile>& disk, const std::string& label,
                   const Expected& file) {
    if (file.blocks.empty()) return;
    try {
      const parquet::CheckedFile checked(disk, {file.checksum, file.blocks});
      forEachPieceOf(checked, [](std::string_view, std::uint64_t) {});
    } catch (const parquet::DamagedBytes& error) {
      fault("{}: the checksums of its blocks are wrong: {}", label, error.what());
    }
  }

  // Runs of rows of the same storage id in a pack.
  struct Run {
    std::uint64_t first = 0;
    std::uint64_t count = 0;
  };

  void checkPack(const PackInfo& pack) {
    if (!isSound(packName(pack.number), pack)) return;
    std::map<int, Run>& runs = runs_[pack.number];
    parquet::InputFile file(folder_->openStored(packName(pack.number)));
    std::vector<std::int32_t> ids;
    int last = 0;
    for (std::size_t group = 0; group < file.rowGroups(); ++group) {
      std::uint64_t row = file.rowStart(group);
      ids.resize(static_cast<std::size_t>(file.rowStart(group + 1) - row));
      file.readNumbers(parquet::kPackColumn, row, ids.size(), reinterpret_cast<char*>(ids.data()));
      for (const std::int32_t id : ids) {
        const auto [run, isNew] = runs.try_emplace(id, Run{row++, 0});
        if (!isNew && last != id) {
          throw std::runtime_error(
              fmt::format("the rows of storage id {} do not follow each other", id));
        }
        last = id;
        ++run->second.count;
      }
    }
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
    if (info_->formatVersion > 1) return;  // there are none
    std::map<int, std::pair<int, int>> recorded;
    try {
      parquet::readSignalRecords(info_->records, [&](const parquet::SignalRecord& record) {
        recorded[record.signalId] = {record.timeStorageId, record.dataStorageId};
      });
    } catch (const std::exception& error) {
      return fault("{}: records cannot be read: {}", kDescriptionFile, error.what());
    }
    for (const SignalInfo& signal : info_->signals) {
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

  // What is known of a content, so that its file is not opened again for each signal that has it.
  struct Known {
    std::shared_ptr<::arrow::Schema> columns;
    std::uint64_t rows = 0;
    bool isShaped = false;  // whether the signals say how many elements a sample has
    std::set<std::vector<std::uint64_t>> read;  // shapes with which all rows were read
  };

  // The signal's content, if its file was found sound. Other files are told of already.
  Known* soundContent(const std::optional<int>& storageId) {
    if (!storageId || sound_.count(*storageId) == 0) return nullptr;
    const auto found = known_.find(*storageId);
    if (found != known_.end()) return &found->second;
    const auto content = contents_.open(*storageId);
    const bool isShaped = content->schema().kind == parquet::ColumnKind::list;
    Known known{content->columns(), content->rows(), isShaped, {}};
    return &known_.emplace(*storageId, std::move(known)).first->second;
  }

  void checkSignal(const SignalInfo& signal) {
    Known* const time = soundContent(signal.timeStorageId);
    Known* const data = soundContent(signal.dataStorageId);
    if (time && fits(signal, *time, *signal.timeStorageId, Scalar, Double)) {
      readThrough(signal, *time, *signal.timeStorageId);
    }
    const Known* const decides = signal.dataStorageId ? data : time;
    const std::string miscounted = decides ? countFault(signal, decides->rows) : "";
    if (!miscounted.empty()) {
      fault("signal {} \"{}\": {}", signal.signalId, signal.name, miscounted);
    }
    if (!data) return;
    if (time && time->rows != data->rows) {
      fault("signal {} \"{}\": {} times in {}, but {} samples in {}", signal.signalId, signal.name,
            time->rows, label(*signal.timeStorageId), data->rows, label(*signal.dataStorageId));
    }
    if (fits(signal, *data, *signal.dataStorageId, signal.category, signal.dataType)) {
      readThrough(signal, *data, *signal.dataStorageId);
    }
  }

  // Whether the columns are those that the signal says. If not, that is told.
  bool fits(const SignalInfo& signal, const Known& content, int storageId,
            KYRSignalCategory category, KYRSignalDataType type) {
    const std::string wrong = columnFault(*content.columns, category, type);
    if (wrong.empty()) return true;
    fault("signal {} \"{}\": {} {}", signal.signalId, signal.name, label(storageId), wrong);
    return false;
  }

  // Reads all rows: they can be decoded, none is missing, and every sample has as many elements as
  // its shape says.
  void readThrough(const SignalInfo& signal, Known& known, int storageId) {
    const auto& shape = signal.dimensions;
    using Shape = std::vector<std::uint64_t>;
    const bool isFirst = known.read.empty();
    if (!known.read.insert(known.isShaped ? Shape(shape.begin(), shape.end()) : Shape()).second) {
      return;
    }
    const auto content = contents_.open(storageId);
    const FileInfo& file = contents_.fileInfo(storageId);
    const bool isSummarized = isFirst && !file.contentDigest.empty();
    parquet::ContentSummarizer summarizer(content->schema(), content->hasTimes());
    forEachPiece(*content,
                 [&](std::uint64_t first, const parquet::RowSlice& rows, const double* times) {
                   const std::string wrong =
                       content->isFlat() ? "" : sampleFault(signal, content->schema(), rows, first);
                   if (!wrong.empty()) throw std::runtime_error(wrong);
                   if (isSummarized) summarizer.add(rows, times);
                 });
    if (isSummarized) checkSummary(file, summarizer.summary());
  }

  void checkSummary(const FileInfo& file, const parquet::ContentSummary& found) {
    if (found.digest != file.contentDigest) {
      fault("{}: its rows have the digest {}, expected {}", label(file.storageId), found.digest,
            file.contentDigest);
    } else if (found.minimum != file.minimum || found.maximum != file.maximum) {
      fault("{}: its values are {}, expected {}", label(file.storageId),
            rangeText(found.minimum, found.maximum), rangeText(file.minimum, file.maximum));
    }
  }

  static std::string rangeText(const std::optional<double>& from, const std::optional<double>& to) {
    if (!from || !to) return "no numbers";
    return fmt::format("{} to {}", *from, *to);
  }

  void checkNamed() {
    std::set<std::string> named;
    for (const SignalInfo& signal : info_->signals) {
      for (const auto& id : {signal.timeStorageId, signal.dataStorageId}) {
        if (id) named.insert(nameOf(*id));
      }
    }
    for (const FileInfo& file : info_->files) {
      if (named.count(nameOf(file.storageId)) == 0) {
        fault("{}: no record names it", label(file.storageId));
        named.insert(nameOf(file.storageId));
      }
    }
    for (const PackInfo& pack : info_->packs) named.insert(packName(pack.number));
    for (const std::string& name : folder_->storedNames()) {
      if (named.count(name) == 0) fault("{}/{}: no record names it", kStorageFolder, name);
    }
  }

  bool tellsFailures_;
  std::shared_ptr<const OpenFolder> folder_;
  std::shared_ptr<const RecordingInfo> info_;
  ContentFiles contents_;                   // each file is compared with its checksum first
  std::map<int, std::map<int, Run>> runs_;  // by pack and storage id
  std::set<int> sound_;
  std::unordered_map<int, Known> known_;  // by storage id
  std::vector<std::string> faults_;
};

}  // namespace

std::vector<std::string> contentFaults(const Folder& folder, bool checksNames) {
  Verifier verifier(OpenFolder(folder), /*tellsFailures=*/false);
  verifier.run(checksNames);
  return verifier.takeFaults();
}

std::vector<std::string> verifyRecording(const Path& folder, Links links) {
  // A save that replaces the folder meanwhile removes the files of the old one. That is no damage.
  constexpr int kAttempts = 10;
  for (int attempt = 1;; ++attempt) {
    const auto [faults, isReplaced] =
        inOpenFolder(folder.toFilesystem(), links, [](const auto& open) {
          Verifier verifier(*open, /*tellsFailures=*/true);
          verifier.run(/*checksNames=*/true);
          verifier.checkTable();
          return std::pair(verifier.takeFaults(), open->isReplaced());
        });
    if (faults.empty() || !isReplaced || attempt == kAttempts) return faults;
  }
}

}  // namespace kyr::recording
