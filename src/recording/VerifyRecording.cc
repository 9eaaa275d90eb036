#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <exception>
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
#include "platform/Parallel.h"
#include "recording/ContentChecks.h"
#include "recording/ContentFaults.h"
#include "recording/ContentFiles.h"
#include "recording/Faults.h"
#include "recording/FolderFiles.h"
#include "recording/OpenFolder.h"
#include "recording/RecordingFolder.h"
#include "recording/SignalTable.h"
#include "recording/TimeSpans.h"
#include "signals/SignalRecords.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::recording {

namespace fs = std::filesystem;

namespace {

// Files and contents are looked at in several threads, each with results of its own. What is wrong
// is told in the order of recording.json.
class Verifier {
 public:
  /// \param tellsFailures  whether failures of the system are told as faults, or thrown
  Verifier(OpenFolder folder, bool tellsFailures)
      : folder_(std::make_shared<const OpenFolder>(std::move(folder))),
        info_(std::make_shared<const RecordingInfo>(describeRecording(*folder_))),
        faults_(tellsFailures) {}

  void run(bool checksNames) {
    checkPacks();
    checkFiles();
    checkRecords();
    readContents();
    for (const SignalInfo& signal : info_->signals) {
      faults_.telling([&] { return fmt::format("signal {} \"{}\"", signal.signalId, signal.name); },
                      [&] { checkSignal(signal); });
    }
    if (checksNames) checkNamed();
  }

  // Readers do without the table, so that it is looked at only where everything is.
  void checkTable() {
    const std::string wrong = signalTableFault(*folder_, *info_);
    if (!wrong.empty()) faults_.tell("{}: {}", kSignalsFile, wrong);
  }

  std::vector<std::string> takeFaults() { return faults_.take(); }

 private:
  // Runs of rows of the same storage id in a pack.
  struct Run {
    std::uint64_t first = 0;
    std::uint64_t count = 0;
  };

  // What was found of a file.
  struct Looked {
    Faults faults;
    bool isSound = false;
    std::map<int, Run> runs = {};  // of a pack, by storage id
  };

  // All rows of a content, read for samples of one shape.
  struct Reading {
    std::vector<std::uint64_t> shape;
    Faults faults;
    std::exception_ptr failure;
    bool isTold = false;
  };

  // What is known of a content, so that its file is opened and read once for all signals.
  struct Known {
    const FileInfo* file = nullptr;
    std::vector<std::pair<const SignalInfo*, bool>> uses = {};  // and whether as its times
    std::exception_ptr failure = nullptr;                       // to open it
    std::shared_ptr<::arrow::Schema> columns = nullptr;
    std::uint64_t rows = 0;
    bool isShaped = false;  // whether the signals say how many elements a sample has
    bool hasTimes = false;
    std::vector<Reading> read = {};
    std::optional<TimeSpan> span = std::nullopt;  // times of the rows that were read
  };

  std::string nameOf(int storageId) const { return storageName(storageId, info_->formatVersion); }
  std::string label(int storageId) const {
    return fmt::format("{}/{}", kStorageFolder, nameOf(storageId));
  }

  void checkPacks() {
    std::vector<Looked> looked = lookAt(info_->packs.size(), [&](std::size_t i, Looked& found) {
      const PackInfo& pack = info_->packs[i];
      found.faults.telling(
          [&] { return fmt::format("{}/{}", kStorageFolder, packName(pack.number)); },
          [&] { lookAtPack(pack, found); });
    });
    for (std::size_t i = 0; i < looked.size(); ++i) {
      faults_.add(looked[i].faults);
      if (looked[i].isSound) runs_[info_->packs[i].number] = std::move(looked[i].runs);
    }
  }

  void checkFiles() {
    std::vector<Looked> looked = lookAt(info_->files.size(), [&](std::size_t i, Looked& found) {
      const FileInfo& file = info_->files[i];
      if (file.pack) return;
      found.faults.telling([&] { return label(file.storageId); },
                           [&] { found.isSound = isSound(nameOf(file.storageId), file, found); });
    });
    for (std::size_t i = 0; i < looked.size(); ++i) {
      const FileInfo& file = info_->files[i];
      faults_.add(looked[i].faults);
      if (looked[i].isSound || (file.pack && isSoundInPack(file))) sound_.insert(file.storageId);
    }
  }

  template <typename Look>
  std::vector<Looked> lookAt(std::size_t count, Look&& look) const {
    std::vector<Looked> looked(count, Looked{Faults(faults_.tellsFailures())});
    forEachInThreads(count, threadsForFiles(count),
                     [&](std::size_t i, std::size_t /*thread*/) { look(i, looked[i]); });
    return looked;
  }

  // Whether the file is what recording.json says of it. If not, that is told.
  template <typename Expected>
  bool isSound(const std::string& name, const Expected& file, Looked& found) const {
    const std::string label = (fs::path(kStorageFolder) / name).string();
    std::shared_ptr<const DiskFile> disk;
    try {
      disk = folder_->openStored(name);
    } catch (const std::system_error& error) {
      const auto& code = error.code();
      const bool isMissing = code == std::errc::no_such_file_or_directory;
      const bool isFile = code != std::errc::is_a_directory && code != std::errc::not_supported;
      if (!found.faults.tellsFailures() && !isMissing && isFile) throw;
      found.faults.tell("{}: {}", label, isMissing ? "missing" : error.what());
      return false;
    }
    const FileDigest digest = digestOf(*disk);
    if (digest.size != file.size) {
      found.faults.tell("{}: {} bytes long, expected {}", label, digest.size, file.size);
      return false;
    }
    if (digest.checksum != file.checksum) {
      found.faults.tell("{}: damaged: its checksum is {}, expected {}", label, digest.checksum,
                        file.checksum);
      return false;
    }
    checkBlocks(disk, label, file, found);
    const std::uint64_t rows = parquet::InputFile(disk).rows();
    if (rows == file.rowCount) return true;
    found.faults.tell("{}: holds {} rows, expected {}", label, rows, file.rowCount);
    return false;
  }

  // The file is sound; the checksums of its blocks may be wrong all the same.
  template <typename Expected>
  static void checkBlocks(const std::shared_ptr<const DiskFile>& disk, const std::string& label,
                          const Expected& file, Looked& found) {
    if (file.blocks.empty()) return;
    try {
      const parquet::CheckedFile checked(disk, {file.checksum, file.blocks});
      forEachPieceOf(checked, [](std::string_view, std::uint64_t) {});
    } catch (const parquet::DamagedBytes& error) {
      found.faults.tell("{}: the checksums of its blocks are wrong: {}", label, error.what());
    }
  }

  // The runs of a pack that makes no sense are those in front of what is wrong.
  void lookAtPack(const PackInfo& pack, Looked& found) const {
    found.isSound = isSound(packName(pack.number), pack, found);
    if (!found.isSound) return;
    parquet::InputFile file(folder_->openStored(packName(pack.number)));
    std::vector<std::int32_t> ids;
    int last = 0;
    for (std::size_t group = 0; group < file.rowGroups(); ++group) {
      std::uint64_t row = file.rowStart(group);
      ids.resize(static_cast<std::size_t>(file.rowStart(group + 1) - row));
      file.readNumbers(parquet::kPackColumn, row, ids.size(), reinterpret_cast<char*>(ids.data()));
      for (const std::int32_t id : ids) {
        const auto [run, isNew] = found.runs.try_emplace(id, Run{row++, 0});
        if (!isNew && last != id) {
          throw std::runtime_error(
              fmt::format("the rows of storage id {} do not follow each other", id));
        }
        last = id;
        ++run->second.count;
      }
    }
  }

  // Whether a pack has the rows of a content. If not, that is told.
  bool isSoundInPack(const FileInfo& file) {
    const auto runs = runs_.find(*file.pack);
    if (runs == runs_.end()) return false;  // told of the pack
    const auto run = runs->second.find(file.storageId);
    const Run found = run == runs->second.end() ? Run() : run->second;
    if (found.count == file.rowCount && (found.count == 0 || found.first == file.firstRow)) {
      return true;
    }
    faults_.tell("{}/{}: storage id {} has {} rows from {} on, expected {} from {} on",
                 kStorageFolder, packName(*file.pack), file.storageId, found.count, found.first,
                 file.rowCount, file.firstRow);
    return false;
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
      return faults_.tell("{}: records cannot be read: {}", kDescriptionFile, error.what());
    }
    for (const SignalInfo& signal : info_->signals) {
      const std::pair<int, int> ids{signal.timeStorageId.value_or(parquet::kNoStorage),
                                    signal.dataStorageId.value_or(parquet::kNoStorage)};
      const bool stored = signal.timeStorageId || signal.dataStorageId;
      const auto record = recorded.find(signal.signalId);
      if (stored != (record != recorded.end()) || (stored && record->second != ids)) {
        faults_.tell("{}: signal {} \"{}\" and its record name different files", kDescriptionFile,
                     signal.signalId, signal.name);
      }
      recorded.erase(signal.signalId);
    }
    for (const auto& [id, ids] : recorded) {
      faults_.tell("{}: a record of signal {}, which is not described", kDescriptionFile, id);
    }
  }

  // Reads the contents whose files were found sound, in the order in which signals name them.
  void readContents() {
    std::vector<int> order;
    for (const SignalInfo& signal : info_->signals) {
      for (const bool isTime : {true, false}) {
        const auto& id = isTime ? signal.timeStorageId : signal.dataStorageId;
        if (!id || sound_.count(*id) == 0) continue;
        Known& known = known_[*id];
        if (known.uses.empty()) order.push_back(*id);
        known.uses.emplace_back(&signal, isTime);
      }
    }
    const std::size_t threads = threadsForFiles(order.size());
    const std::size_t openFiles = std::max<std::size_t>(2, defaultOpenFiles() / (threads + 1));
    std::vector<std::unique_ptr<ContentFiles>> files(threads);
    forEachInThreads(order.size(), threads, [&](std::size_t i, std::size_t thread) {
      if (!files[thread]) {
        // Each file was compared with its checksum.
        files[thread] = std::make_unique<ContentFiles>(folder_, /*checks=*/false, openFiles);
        files[thread]->describe(info_, /*isLive=*/false);
      }
      readContent(*files[thread], order[i], known_.at(order[i]));
    });
  }

  void readContent(ContentFiles& files, int storageId, Known& known) const {
    try {
      known.file = &files.fileInfo(storageId);
      const auto content = files.open(storageId);
      known.columns = content->columns();
      known.rows = content->rows();
      known.isShaped = content->schema().kind == parquet::ColumnKind::list;
      known.hasTimes = content->hasTimes();
      for (const auto& [signal, isTime] : known.uses) {
        if (columnFault(known, *signal, isTime).empty()) readFor(*signal, *content, known);
      }
    } catch (...) {
      known.failure = std::current_exception();
    }
  }

  static std::string columnFault(const Known& content, const SignalInfo& signal, bool isTime) {
    return recording::columnFault(*content.columns, isTime ? Scalar : signal.category,
                                  isTime ? Double : signal.dataType);
  }

  static std::vector<std::uint64_t> shapeFor(const SignalInfo& signal, const Known& content) {
    if (!content.isShaped) return {};
    return {signal.dimensions.begin(), signal.dimensions.end()};
  }

  // The content of a signal, if its file was found sound. Other files are told of already.
  Known* soundContent(const std::optional<int>& storageId) {
    const auto found = storageId ? known_.find(*storageId) : known_.end();
    if (found == known_.end()) return nullptr;
    if (found->second.failure) std::rethrow_exception(found->second.failure);
    return &found->second;
  }

  void checkSignal(const SignalInfo& signal) {
    Known* const time = soundContent(signal.timeStorageId);
    Known* const data = soundContent(signal.dataStorageId);
    if (time && fits(signal, *time, *signal.timeStorageId, /*isTime=*/true)) {
      tellOfReading(signal, *time);
      const FileInfo& times = *time->file;
      // The bounds were compared with the rows.
      if (!times.contentDigest.empty()) checkSpan(signal, times.minimum, times.maximum);
    }
    const Known* const decides = signal.dataStorageId ? data : time;
    const std::string miscounted = decides ? countFault(signal, decides->rows) : "";
    if (!miscounted.empty()) {
      faults_.tell("signal {} \"{}\": {}", signal.signalId, signal.name, miscounted);
    }
    if (!data) return;
    if (time && time->rows != data->rows) {
      faults_.tell("signal {} \"{}\": {} times in {}, but {} samples in {}", signal.signalId,
                   signal.name, time->rows, label(*signal.timeStorageId), data->rows,
                   label(*signal.dataStorageId));
    }
    if (fits(signal, *data, *signal.dataStorageId, /*isTime=*/false)) {
      tellOfReading(signal, *data);
      if (data->hasTimes && !signal.timeStorageId) {
        const auto& span = data->span;
        checkSpan(signal, span ? std::optional(span->from) : std::nullopt,
                  span ? std::optional(span->to) : std::nullopt);
      }
    }
  }

  // Whether the columns are those that the signal says. If not, that is told.
  bool fits(const SignalInfo& signal, const Known& content, int storageId, bool isTime) {
    const std::string wrong = columnFault(content, signal, isTime);
    if (wrong.empty()) return true;
    faults_.tell("signal {} \"{}\": {} {}", signal.signalId, signal.name, label(storageId), wrong);
    return false;
  }

  // Tells what was found where the rows were read, for the first signal that needs them so.
  void tellOfReading(const SignalInfo& signal, Known& known) {
    const auto shape = shapeFor(signal, known);
    // Only the first reading computes the digest, whatever the signal before it had to tell.
    if (!known.read.empty()) faults_.add(known.read.front().faults);
    for (Reading& reading : known.read) {
      if (reading.shape != shape || std::exchange(reading.isTold, true)) continue;
      faults_.add(reading.faults);
      if (reading.failure) std::rethrow_exception(reading.failure);
    }
  }

  // Reads all rows, unless a signal before had samples of the same shape: they can be decoded, none
  // is missing, and every sample has as many elements as its shape says.
  void readFor(const SignalInfo& signal, parquet::ContentReader& content, Known& known) const {
    auto shape = shapeFor(signal, known);
    for (const Reading& reading : known.read) {
      if (reading.shape == shape) return;
    }
    const bool isFirst = known.read.empty();
    Reading& reading = known.read.emplace_back(
        Reading{std::move(shape), Faults(faults_.tellsFailures()), nullptr});
    try {
      readThrough(signal, content, known, isFirst && !known.file->contentDigest.empty());
    } catch (...) {
      reading.failure = std::current_exception();
    }
  }

  void readThrough(const SignalInfo& signal, parquet::ContentReader& content, Known& known,
                   bool isSummarized) const {
    parquet::ContentSummarizer summarizer(content.schema(), content.hasTimes());
    forEachPiece(content,
                 [&](std::uint64_t first, const parquet::RowSlice& rows, const double* times) {
                   const std::string wrong =
                       content.isFlat() ? "" : sampleFault(signal, content.schema(), rows, first);
                   if (!wrong.empty()) throw std::runtime_error(wrong);
                   if (isSummarized) summarizer.add(rows, times);
                   for (std::size_t i = 0; times && i < rows.rows; ++i) {
                     noteTime(known.span, times[i]);
                   }
                 });
    if (isSummarized) checkSummary(*known.file, summarizer.summary(), known.read.back().faults);
  }

  void checkSummary(const FileInfo& file, const parquet::ContentSummary& found,
                    Faults& faults) const {
    if (found.digest != file.contentDigest) {
      faults.tell("{}: its rows have the digest {}, expected {}", label(file.storageId),
                  found.digest, file.contentDigest);
    } else if (found.minimum != file.minimum || found.maximum != file.maximum) {
      faults.tell("{}: its values are {}, expected {}", label(file.storageId),
                  rangeText(found.minimum, found.maximum), rangeText(file.minimum, file.maximum));
    }
  }

  static std::string rangeText(const std::optional<double>& from, const std::optional<double>& to) {
    if (!from || !to) return "no numbers";
    return fmt::format("{} to {}", *from, *to);
  }

  // The smallest and the largest time are the span of the signal.
  void checkSpan(const SignalInfo& signal, const std::optional<double>& from,
                 const std::optional<double>& to) {
    const bool isFinite = from && to && std::isfinite(*from) && std::isfinite(*to);
    const auto& span = signal.timeSpan;
    const bool isEqual = isFinite ? span && span->from == *from && span->to == *to : !span;
    if (isEqual) return;
    faults_.tell("signal {} \"{}\": its times are {}, expected {}", signal.signalId, signal.name,
                 rangeText(from, to), span ? rangeText(span->from, span->to) : "no span");
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
        faults_.tell("{}: no record names it", label(file.storageId));
        named.insert(nameOf(file.storageId));
      }
    }
    for (const PackInfo& pack : info_->packs) named.insert(packName(pack.number));
    for (const std::string& name : folder_->storedNames()) {
      if (named.count(name) == 0) faults_.tell("{}/{}: no record names it", kStorageFolder, name);
    }
  }

  std::shared_ptr<const OpenFolder> folder_;
  std::shared_ptr<const RecordingInfo> info_;
  std::map<int, std::map<int, Run>> runs_;  // by pack and storage id
  std::set<int> sound_;
  std::unordered_map<int, Known> known_;  // by storage id
  Faults faults_;
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
