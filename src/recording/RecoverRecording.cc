#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>
#include <system_error>
#include <tuple>
#include <utility>

#include "files/ContentReader.h"
#include "kyr/recording/RecordingInfo.h"
#include "kyr/recording/Recovery.h"
#include "recording/CompleteRecording.h"
#include "recording/FolderFiles.h"
#include "recording/LiveFormat.h"
#include "recording/LiveJournal.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingFormat.h"
#include "recording/RecordingSnapshot.h"
#include "recording/StorageFiles.h"

namespace kyr::recording {

namespace fs = std::filesystem;

namespace {

constexpr const char* kLostFolder = "lost";
constexpr const char* kDamagedSuffix = ".damaged";

// A signal on its way into the recording.
struct Salvage {
  SignalInfo info;
  std::optional<std::uint64_t> timeRows;  // acknowledged; empty if nothing tells
  std::optional<std::uint64_t> dataRows;
  std::uint64_t kept = 0;
  RecoveredSignal result;
};

class Recovery {
 public:
  explicit Recovery(fs::path folder) : folder_(std::move(folder)), lock_(folder_) {}

  RecoveryResult run() {
    if (isComplete()) {
      result_.wasComplete = !fs::exists(folder_ / kLiveFile) && !fs::exists(folder_ / kJournalFile);
      removeLiveFiles(folder_);
      return std::move(result_);
    }
    if (!fs::is_directory(folder_ / kStorageFolder)) nothing();
    refusePacks();
    storage_.emplace(folder_ / kStorageFolder);
    readDescription();
    if (!hasJournal_) addUndescribed();
    for (Salvage& signal : signals_) decide(signal);
    checkGains();
    assignFiles();
    complete();
    return std::move(result_);
  }

 private:
  [[noreturn]] void nothing() const {
    throw std::runtime_error(folder_.string() + ": there is no recording to be had of it");
  }

  // Whether recording.json is in order, and all that it names is there.
  bool isComplete() {
    const bool wasLive = fs::exists(folder_ / kLiveFile) || fs::exists(folder_ / kJournalFile);
    const Path folder = Path::fromFilesystem(folder_);
    RecordingInfo info;
    try {
      if (!fs::is_regular_file(descriptionPath(folder_))) return false;
      info = describeRecording(folder);
    } catch (const std::runtime_error&) {
      return false;
    }
    if (wasLive) removeUnnamed(folder_, info);
    const auto faults = verifyRecording(folder);
    if (!faults.empty() && !wasLive) {
      throw std::runtime_error(
          fmt::format("{}: its {} is in order, so there is nothing to recover it from: {}",
                      folder_.string(), kDescriptionFile, faults.front()));
    }
    for (const SignalInfo& signal : info.signals) {
      RecoveredSignal kept;
      static_cast<SignalDescription&>(kept) = signal;
      kept.rowsKept = signal.rowCount;
      if (faults.empty()) result_.signals.push_back(std::move(kept));
    }
    return faults.empty();
  }

  // Only a saved recording has packs, and only its description says what they hold.
  void refusePacks() const {
    for (const auto& entry : fs::directory_iterator(folder_ / kStorageFolder)) {
      const std::string name = entry.path().filename();
      if (name.rfind("pack-", 0) != 0) continue;
      throw std::runtime_error(fmt::format(
          "{}: the recording is packed, and without its {} nothing says to which signal the rows "
          "of "
          "{}/{} belong: they cannot be recovered, but any program that reads Parquet can read "
          "them, "
          "by the column \"{}\"",
          folder_.string(), kDescriptionFile, kStorageFolder, name, parquet::kPackColumn));
    }
  }

  void readDescription() {
    const fs::path live = folder_ / kLiveFile;
    if (fs::exists(live)) {
      const std::string text = readWholeFile(live);
      try {
        takeLive(readLiveJson(text, live.string()));
      } catch (const std::runtime_error& error) {
        result_.notes.emplace_back(error.what());
        take(salvageSignals(text));
      }
      return;
    }
    const fs::path description = descriptionPath(folder_);
    if (fs::exists(description)) {
      const std::string text = readWholeFile(description);
      take(salvageSignals(text));
      result_.notes.emplace_back(
          fmt::format("{} is damaged: {} could be made out of it, which may be wrong in places",
                      kDescriptionFile, signals_.empty() ? "nothing" : "descriptions"));
      const fs::path copy = description.string() + kDamagedSuffix;
      if (!fs::exists(copy)) copyFile(description, copy);
    } else {
      result_.notes.emplace_back(
          fmt::format("nothing but the files in {} describes the signals", kStorageFolder));
    }
  }

  void takeLive(LiveDescription live) {
    std::optional<JournalLine> line;
    if (fs::exists(folder_ / kJournalFile)) {
      const DiskFile journal(folder_ / kJournalFile, DiskFile::Mode::readOnly);
      line = lastJournalLine(journal, live.sequence);
    }
    take(std::move(live.signals));
    if (!line) return;
    hasJournal_ = true;
    line->rows.resize(2 * signals_.size(), 0);
    for (std::size_t i = 0; i < signals_.size(); ++i) {
      signals_[i].timeRows = line->rows[2 * i];
      signals_[i].dataRows = line->rows[2 * i + 1];
    }
  }

  void take(std::vector<SignalInfo> infos) {
    for (SignalInfo& info : infos) {
      for (const auto& id : {info.timeStorageId, info.dataStorageId}) {
        if (id) named_.insert(*id);
      }
      signals_.push_back({std::move(info), {}, {}, 0, {}});
    }
  }

  // Files that no description names: those who say what they are of, and others as they are.
  void addUndescribed() {
    std::set<int> claimed;
    for (const int id : storage_->ids()) {
      if (named_.count(id) > 0 || !storage_->file(id).isReadable) continue;
      for (const PartClaim& claim : storage_->claims(id)) {
        take(claim, id);
        claimed.insert(id);
      }
    }
    if (!claimed.empty()) {
      result_.notes.emplace_back(
          "which signals shared a file is known from the time when each file was made only");
    }
    for (const int id : storage_->ids()) {
      if (named_.count(id) > 0 || claimed.count(id) > 0 || !storage_->file(id).isReadable) continue;
      if (auto info = storage_->guess(id)) addNameless(*std::move(info));
    }
  }

  // A part that moved on to another file is claimed by the later one, too.
  void take(const PartClaim& claim, int id) {
    auto signal = std::find_if(signals_.begin(), signals_.end(), [&](const Salvage& known) {
      return known.info.signalId == claim.signal.signalId;
    });
    if (signal == signals_.end()) {
      signals_.push_back({claim.signal, {}, {}, 0, {}});
      signal = signals_.end() - 1;
    }
    (claim.isTime ? signal->info.timeStorageId : signal->info.dataStorageId) = id;
  }

  void addNameless(SignalInfo info) {
    const auto isTaken = [this](int id) {
      return std::any_of(signals_.begin(), signals_.end(),
                         [id](const Salvage& signal) { return signal.info.signalId == id; });
    };
    info.signalId = *info.dataStorageId;
    while (isTaken(info.signalId)) ++info.signalId;
    info.name = fmt::format("signal {}", info.signalId);
    result_.notes.push_back(fmt::format("{} is called {} for want of a description",
                                        storagePath("", *info.dataStorageId).string(), info.name));
    signals_.push_back({std::move(info), {}, {}, 0, {}});
  }

  // How many rows the signal keeps, and so which parts it has.
  void decide(Salvage& signal) {
    SignalInfo& info = signal.info;
    const auto available = [this](const std::optional<int>& id,
                                  const std::optional<std::uint64_t>& acknowledged) {
      const std::uint64_t rows = id ? storage_->file(*id).rows : 0;
      return std::min(rows, acknowledged.value_or(rows));
    };
    const std::uint64_t times = available(info.timeStorageId, signal.timeRows);
    const std::uint64_t samples = available(info.dataStorageId, signal.dataRows);
    const std::uint64_t timesBefore = signal.timeRows.value_or(times);
    const std::uint64_t samplesBefore = signal.dataRows.value_or(samples);
    const bool isPair = signal.timeRows ? timesBefore > 0 && samplesBefore > 0
                                        : info.timeStorageId && info.dataStorageId;
    signal.kept = isPair ? std::min(times, samples) : std::max(times, samples);
    const std::uint64_t before =
        isPair ? std::min(timesBefore, samplesBefore) : std::max(timesBefore, samplesBefore);

    RecoveredSignal& result = signal.result;
    static_cast<SignalDescription&>(result) = info;
    result.rowsKept = signal.kept;
    result.rowsLost = before - signal.kept;
    if (result.rowsLost > 0 && info.timeStorageId) {
      const auto last = storage_->time(*info.timeStorageId, before - 1);
      const auto lastKept =
          storage_->time(*info.timeStorageId, signal.kept > 0 ? signal.kept - 1 : 0);
      if (last && lastKept) result.secondsLost = *last - *lastKept;
    }
    const std::uint64_t unpaired = isPair ? std::max(timesBefore, samplesBefore) - before : 0;
    if (unpaired > 0) {
      result_.notes.push_back(fmt::format(
          "signal {} \"{}\": {} more {} are left out", info.signalId, info.name, unpaired,
          timesBefore > samplesBefore ? "times than samples" : "samples than times"));
    }
    if (signal.kept == 0 || (!isPair && times == 0)) info.timeStorageId.reset();
    if (signal.kept == 0 || (!isPair && samples == 0)) info.dataStorageId.reset();
  }

  void checkGains() const {
    const bool hasRows = std::any_of(signals_.begin(), signals_.end(),
                                     [](const Salvage& signal) { return signal.kept > 0; });
    const bool hasLosses = std::any_of(signals_.begin(), signals_.end(), [](const Salvage& signal) {
      return signal.result.rowsLost > 0;
    });
    if (!hasRows && (hasLosses || signals_.empty())) nothing();
  }

  // Gives each part a file of exactly its rows. A file is cut for those who have most of it.
  void assignFiles() {
    std::map<int, std::uint64_t> most;
    forEachPart([&](int& id, std::uint64_t rows) { most[id] = std::max(most[id], rows); });
    std::map<std::pair<int, std::uint64_t>, int> assigned;
    forEachPart([&](int& id, std::uint64_t rows) { assigned[{id, rows}] = id; });
    for (auto& [part, id] : assigned) {
      if (part.second < most[part.first]) id = storage_->withRows(id, part.second, false);
    }
    for (auto& [part, id] : assigned) {
      if (part.second == most[part.first]) id = storage_->withRows(id, part.second, true);
    }
    for (const int id : storage_->ids()) {
      const RecoveredStorage& file = storage_->file(id);
      if (file.bytesCut > 0) result_.filesCut.push_back({id, file.bytesCut});
    }
    forEachPart([&](int& id, std::uint64_t rows) { id = assigned.at({id, rows}); });
  }

  template <typename Visit>
  void forEachPart(Visit&& visit) {
    for (Salvage& signal : signals_) {
      for (auto* id : {&signal.info.timeStorageId, &signal.info.dataStorageId}) {
        if (*id) visit(**id, signal.kept);
      }
    }
  }

  void complete() {
    InfoBuilder builder(folder_ / kStorageFolder);
    for (Salvage& signal : signals_) {
      builder.add(signal.info);
      result_.signals.push_back(std::move(signal.result));
    }
    std::sort(result_.signals.begin(), result_.signals.end(),
              [](const auto& a, const auto& b) { return a.signalId < b.signalId; });
    const RecordingInfo info = builder.take();
    setAside();
    completeRecording(folder_, info);
    removeUnnamed(folder_, info);
    const auto faults = verifyRecording(Path::fromFilesystem(folder_));
    if (!faults.empty()) {
      throw std::runtime_error(
          fmt::format("{}: recovered, but with faults: {}", folder_.string(), faults.front()));
    }
    removeLiveFiles(folder_);
  }

  // What cannot be read is not thrown away, unless it is known that nothing was acknowledged of it.
  void setAside() {
    for (const int id : storage_->ids()) {
      if (storage_->file(id).isReadable || (hasJournal_ && named_.count(id) == 0)) continue;
      fs::create_directory(folder_ / kLostFolder);
      fs::rename(storagePath(folder_, id), folder_ / kLostFolder / std::to_string(id));
      result_.notes.push_back(fmt::format("{} cannot be read, and is in {} now",
                                          storagePath("", id).string(), kLostFolder));
    }
  }

  fs::path folder_;
  RecoveryLock lock_;
  std::optional<StorageFiles> storage_;
  std::vector<Salvage> signals_;
  std::set<int> named_;  // files that the description names
  bool hasJournal_ = false;
  RecoveryResult result_;
};

}  // namespace

bool RecoveryResult::hasLosses() const {
  return !notes.empty() || std::any_of(signals.begin(), signals.end(),
                                       [](const auto& signal) { return signal.rowsLost > 0; });
}

RecoveryResult recoverRecording(const Path& folder) {
  const fs::path path = fs::absolute(folder.toFilesystem()).lexically_normal();
  if (!fs::is_directory(path)) throw std::runtime_error(path.string() + ": no such folder");
  return Recovery(path).run();
}

}  // namespace kyr::recording
