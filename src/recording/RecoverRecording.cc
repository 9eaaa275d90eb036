#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>
#include <system_error>
#include <unordered_map>
#include <utility>

#include "files/ContentReader.h"
#include "files/pack/PackSchema.h"
#include "kyr/recording/RecordingInfo.h"
#include "kyr/recording/Recovery.h"
#include "recording/CompleteRecording.h"
#include "recording/ContentChecks.h"
#include "recording/ContentFaults.h"
#include "recording/ExpandPacks.h"
#include "recording/FolderFiles.h"
#include "recording/LiveFormat.h"
#include "recording/LiveJournal.h"
#include "recording/LivePacks.h"
#include "recording/LostFiles.h"
#include "recording/OpenFolder.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingFormat.h"
#include "recording/RecordingSnapshot.h"
#include "recording/SignalTable.h"
#include "recording/StorageFiles.h"

namespace kyr::recording {

namespace fs = std::filesystem;

namespace {

constexpr const char* kDamagedSuffix = ".damaged";

// A signal on its way into the recording.
struct Salvage {
  SignalInfo info;
  std::optional<std::uint64_t> timeRows;  // acknowledged; empty if nothing tells
  std::optional<std::uint64_t> dataRows;
  std::uint64_t kept = 0;
  RecoveredSignal result;
};

// Looks at everything before it changes anything. Then it keeps aside what is damaged or doubtful,
// and makes the recording of the rest.
class Recovery {
 public:
  explicit Recovery(const fs::path& path) : folder_(path), lock_(refusingLinks(folder_)) {}

  RecoveryResult run() {
    if (isComplete()) return std::move(result_);
    if (folder_.entry(kStorageFolder) != Folder::Entry::folder) nothing();
    refusePacks();
    const LivePacks packs = checkedPacks(std::make_shared<const OpenFolder>(folder_));
    readDescription(packs);
    expand(packs);
    storage_.emplace(folder_.folder(kStorageFolder), stated_);
    dropMisfits();
    if (!isDescribed_) addUndescribed();
    countUsers();
    for (Salvage& signal : signals_) decide(signal);
    checkGains();
    keepDoubtful();
    assignFiles();
    complete();
    return std::move(result_);
  }

 private:
  // Recovery makes, cuts and removes files, which may not lie where a link leads to.
  static const Folder& refusingLinks(const Folder& folder) {
    for (const std::string name :
         {kStorageFolder, kLostFolder, kDescriptionFile, kLiveFile, kJournalFile}) {
      if (folder.entry(name) != Folder::Entry::link) continue;
      throw std::runtime_error(fmt::format(
          "{}: is a symbolic link, which is not followed, so nothing can be recovered here",
          (folder.path() / name).string()));
    }
    return folder;
  }

  [[noreturn]] void nothing() const {
    throw std::runtime_error(folder_.path().string() + ": there is no recording to be had of it");
  }

  template <typename... Args>
  void note(fmt::format_string<Args...> format, Args&&... args) {
    result_.notes.push_back(fmt::format(format, std::forward<Args>(args)...));
  }

  std::string labelOf(int id) const {
    return fmt::format("{}/{}", kStorageFolder, storage_->nameOf(id));
  }

  // Whether recording.json is in order, and all that it names is there.
  bool isComplete() {
    const bool wasLive = folder_.has(kLiveFile) || folder_.has(kJournalFile);
    RecordingInfo info;
    try {
      if (folder_.entry(kDescriptionFile) != Folder::Entry::file) return false;
      info = describeRecording(OpenFolder(folder_));
    } catch (const std::system_error&) {
      throw;
    } catch (const std::runtime_error&) {
      return false;
    }
    const auto faults = contentFaults(folder_, /*checksNames=*/!wasLive);
    if (!faults.empty()) {
      if (wasLive) return false;
      throw std::runtime_error(
          fmt::format("{}: its {} is in order, so there is nothing to recover it from: {}",
                      folder_.path().string(), kDescriptionFile, faults.front()));
    }
    for (const SignalInfo& signal : info.signals) {
      RecoveredSignal kept;
      static_cast<SignalDescription&>(kept) = signal;
      kept.rowsKept = signal.rowCount;
      result_.signals.push_back(std::move(kept));
    }
    const bool hasTable = signalTableFault(OpenFolder(folder_), info).empty();
    if (!hasTable) writeDescription(folder_, info, /*syncs=*/true);
    result_.wasComplete = !wasLive && hasTable;
    if (wasLive) clearStorage(info);
    removeLiveFiles(folder_);
    return true;
  }

  // The rows that growing packs have become files, of which the rest is made.
  void expand(const LivePacks& packs) {
    expandPacks(folder_, packs, [this](const std::string& name, const std::string& damage) {
      keepAside(folder_, name);
      note("{}/{} is damaged, and is kept in {}: {}", kStorageFolder, name, kLostFolder, damage);
    });
  }

  // Only a finished recording has packs of this kind, and only its description says what they hold.
  // Where there is none yet, a finish() was interrupted that had written them.
  void refusePacks() const {
    if (!folder_.has(kDescriptionFile) && folder_.has(kLiveFile)) return;
    for (const std::string& name : folder_.folder(kStorageFolder).names()) {
      if (!isPackName(name)) continue;
      throw std::runtime_error(fmt::format(
          "{}: the recording is packed, and without its {} nothing says to which signal the rows "
          "of {}/{} belong: they cannot be recovered, but any program that reads Parquet can read "
          "them, by the column \"{}\"",
          folder_.path().string(), kDescriptionFile, kStorageFolder, name, parquet::kPackColumn));
    }
  }

  void readDescription(const LivePacks& packs) {
    if (folder_.has(kLiveFile)) {
      const std::string text = OpenFolder(folder_).readText(kLiveFile);
      try {
        takeLive(readLiveJson(text, (folder_.path() / kLiveFile).string()), packs);
      } catch (const std::system_error&) {
        throw;
      } catch (const std::runtime_error& error) {
        result_.notes.emplace_back(error.what());
        take(salvageSignals(text));
        attributes_ = salvageAttributes(text);
      }
      return;
    }
    if (!folder_.has(kDescriptionFile)) {
      return note("nothing but the files in {} describes the signals", kStorageFolder);
    }
    const std::string text = OpenFolder(folder_).readText(kDescriptionFile);
    take(salvageSignals(text));
    attributes_ = salvageAttributes(text);
    stated_ = salvageFiles(text);
    keepsDescription_ = true;
    note("{} is damaged: {} could be made out of it, which may be wrong in places",
         kDescriptionFile, signals_.empty() ? "nothing" : "descriptions");
  }

  void takeLive(LiveDescription live, const LivePacks& packs) {
    JournalEnd journal = completeJournal(folder_, packs, live);
    // The list names a file before a line counts rows of it. So no row was acknowledged yet.
    if (journal.isEmpty && !namesFile(live)) {
      journal.line = JournalLine{live.sequence, 0, {}};
      journal.fault.clear();
    }
    // Only the line from before the first flush is there. What was acknowledged later is unknown:
    // without syncs, rows may come to the disk before the lines that count them.
    const bool isFirstLine = journal.line && journal.line->rows.empty();
    if (isFirstLine && (!journal.fault.empty() || namesFile(live))) journal.line.reset();
    // The line of a flush that returned may be the one that was damaged.
    if (journal.line && (journal.fault.empty() || journal.isTorn)) takeBackTo(*journal.line, live);
    take(std::move(live.signals));
    attributes_ = std::move(live.attributes);
    isDescribed_ = true;
    if (!journal.fault.empty()) {
      note("{}: rows that it may have acknowledged are kept as far as they are there",
           journal.fault);
    }
    if (!journal.line) return;
    hasJournal_ = true;
    isJournalSound_ = journal.fault.empty();
    journal.line->rows.resize(2 * signals_.size(), 0);
    for (std::size_t i = 0; i < signals_.size(); ++i) {
      signals_[i].timeRows = journal.line->rows[2 * i];
      signals_[i].dataRows = journal.line->rows[2 * i + 1];
    }
  }

  static bool namesFile(const LiveDescription& live) {
    return std::any_of(live.signals.begin(), live.signals.end(), namesFiles);
  }

  void take(std::vector<SignalInfo> infos) {
    for (SignalInfo& info : infos) {
      for (const auto& id : {info.timeStorageId, info.dataStorageId}) {
        if (id) named_.insert(*id);
      }
      places_[info.signalId] = signals_.size();
      signals_.push_back({std::move(info), {}, {}, 0, {}});
    }
  }

  // Files whose columns are not those of the signals that name them say nothing of these signals.
  void dropMisfits() {
    for (Salvage& signal : signals_) {
      SignalInfo& info = signal.info;
      dropMisfit(info, info.timeStorageId, Scalar, Double);
      const bool hadSamples = info.dataStorageId.has_value();
      dropMisfit(info, info.dataStorageId, info.category, info.dataType);
      if (hadSamples && !info.dataStorageId) info.timeStorageId.reset();
    }
  }

  void dropMisfit(const SignalInfo& info, std::optional<int>& id, KYRSignalCategory category,
                  KYRSignalDataType type) {
    if (!id || !storage_->file(*id).isReadable()) return;
    const std::string fault = columnFault(*storage_->file(*id).schema, category, type);
    if (fault.empty()) return;
    note("signal {} \"{}\": {} {}", info.signalId, info.name, labelOf(*id), fault);
    doubtful_.insert(*id);
    id.reset();
  }

  // Files that no description names, but who say what they are of.
  void addUndescribed() {
    std::map<std::pair<int, bool>, int> claimed;  // the last file by signal, and whether of times
    std::map<int, SignalInfo> signals;
    for (const int id : storage_->ids()) {
      if (named_.count(id) > 0 || !storage_->file(id).isReadable()) continue;
      for (const PartClaim& claim : storage_->claims(id)) {
        if (places_.count(claim.signal.signalId) > 0) continue;
        // A part that moved on to another file is claimed by the later one, too.
        claimed[{claim.signal.signalId, claim.isTime}] = id;
        signals.emplace(claim.signal.signalId, claim.signal);
      }
    }
    for (const auto& [part, id] : claimed) {
      SignalInfo& info = signals.at(part.first);
      (part.second ? info.timeStorageId : info.dataStorageId) = id;
    }
    std::vector<SignalInfo> found;
    found.reserve(signals.size());
    for (auto& [id, info] : signals) found.push_back(std::move(info));
    if (found.empty()) return;
    take(std::move(found));
    note("which signals shared a file is known from the time when each file was made only");
  }

  void countUsers() {
    for (const Salvage& signal : signals_) {
      for (const auto& id : {signal.info.timeStorageId, signal.info.dataStorageId}) {
        if (id) ++users_[*id];
      }
    }
  }

  // Rows of a part that can be had. Behind the last sound line of a damaged journal there may be
  // rows that were acknowledged, too: those in files of which nobody else can have some.
  std::uint64_t available(const std::optional<int>& id,
                          const std::optional<std::uint64_t>& acknowledged, bool isOwn) {
    const std::uint64_t rows = id ? storage_->file(*id).rows : 0;
    if (hasJournal_ && !isJournalSound_ && isOwn) return rows;
    return std::min(rows, acknowledged.value_or(rows));
  }

  // How many rows the signal keeps, and so which parts it has.
  void decide(Salvage& signal) {
    SignalInfo& info = signal.info;
    const bool isOwn = info.dataStorageId && users_[*info.dataStorageId] == 1;
    std::uint64_t times = available(info.timeStorageId, signal.timeRows, isOwn);
    std::uint64_t samples = available(info.dataStorageId, signal.dataRows, isOwn);
    const std::uint64_t timesBefore = signal.timeRows.value_or(times);
    const std::uint64_t samplesBefore = signal.dataRows.value_or(samples);
    const bool hadPairs = timesBefore > 0 && samplesBefore > 0;
    const bool hadNothing = timesBefore == 0 && samplesBefore == 0;
    const bool gainsPairs = hadNothing && times > 0 && samples > 0;
    bool isPair =
        info.timeStorageId && info.dataStorageId && (!signal.timeRows || hadPairs || gainsPairs);
    // The samples do not limit the times then, so that those in a file of others count no more.
    if (!isPair && info.timeStorageId) {
      times = available(info.timeStorageId, signal.timeRows, users_[*info.timeStorageId] == 1);
    }
    // What was acknowledged of one part alone is not cut to what the other part got later.
    if (!hadNothing && timesBefore == 0) times = 0;
    if (!hadNothing && samplesBefore == 0) samples = 0;
    const std::uint64_t before =
        isPair ? std::min(timesBefore, samplesBefore) : std::max(timesBefore, samplesBefore);
    if (isPair && samples > 0 && info.timeStorageId &&
        !storage_->file(*info.timeStorageId).isReadable()) {
      note("signal {} \"{}\": its times cannot be read: {}", info.signalId, info.name,
           storage_->file(*info.timeStorageId).damage);
      isPair = false;
      times = 0;
    }
    signal.kept = isPair ? std::min(times, samples) : std::max(times, samples);
    const std::uint64_t unpaired = isPair ? std::max(times, samples) - signal.kept : 0;

    RecoveredSignal& result = signal.result;
    static_cast<SignalDescription&>(result) = info;
    result.rowsKept = signal.kept;
    result.rowsLost = before - std::min(before, signal.kept);
    if (hasJournal_ && signal.kept > before) {
      result.rowsUnacknowledged = signal.kept - before;
      note("signal {} \"{}\": the rows from {} to {} are behind the last sound line of {}",
           info.signalId, info.name, before, signal.kept, kJournalFile);
    }
    if (result.rowsLost > 0 && info.timeStorageId) {
      const auto last = storage_->time(*info.timeStorageId, before - 1);
      const auto lastKept =
          storage_->time(*info.timeStorageId, signal.kept > 0 ? signal.kept - 1 : 0);
      if (last && lastKept) result.secondsLost = *last - *lastKept;
    }
    if (unpaired > 0 && result.rowsLost == 0) {
      note("signal {} \"{}\": {} more {} are left out", info.signalId, info.name, unpaired,
           times > samples ? "times than samples" : "samples than times");
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
    const bool isEmpty = storage_->ids().empty() || (hasJournal_ && isJournalSound_);
    if (!hasRows && (hasLosses || signals_.empty() || !isEmpty)) nothing();
  }

  // What is damaged is kept aside before anything is cut or removed, and so is what may hold rows
  // that somebody misses.
  void keepDoubtful() {
    std::map<int, std::uint64_t> most;
    forEachPart([&](int& id, std::uint64_t rows) { most[id] = std::max(most[id], rows); });
    const bool isCertain = hasJournal_ && isJournalSound_;
    for (const int id : storage_->ids()) {
      const RecoveredStorage& file = storage_->file(id);
      const std::string name = labelOf(id);
      const auto used = most.find(id);
      if (!file.damage.empty()) {
        if (isCertain && named_.count(id) == 0) continue;  // nobody was promised anything of it
        keepAside(folder_, storage_->nameOf(id));
        note("{} is damaged, and is kept in {}: {}", name, kLostFolder, file.damage);
      } else if (doubtful_.count(id) > 0 || (used == most.end() && !isCertain && file.rows > 0)) {
        keepAside(folder_, storage_->nameOf(id));
        note("{}, of which nothing says for certain what it holds, is kept in {}", name,
             kLostFolder);
      } else if (used != most.end() && used->second < file.rows && !isCertain) {
        keepAside(folder_, storage_->nameOf(id));
        note("{} has {} rows behind those that are kept. It is in {} as it was", name,
             file.rows - used->second, kLostFolder);
      }
    }
  }

  // Removes the files that no signal needs. What somebody else put there goes to `lost`.
  void clearStorage(const RecordingInfo& info) {
    removeUnnamed(folder_, info);
    const Folder storage = folder_.folder(kStorageFolder);
    for (const std::string& name : unnamedIn(storage, info)) {
      moveAside(folder_, name);
      note("{}/{}, which is no file of the recording, is in {} now", kStorageFolder, name,
           kLostFolder);
    }
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
    forEachPart([&](int& id, std::uint64_t /*rows*/) { storage_->rename(id); });
    InfoBuilder builder([this](int id) { return storagePath(folder_.path(), id); });
    for (Salvage& signal : signals_) {
      builder.add(signal.info);
      result_.signals.push_back(std::move(signal.result));
    }
    std::sort(result_.signals.begin(), result_.signals.end(),
              [](const auto& a, const auto& b) { return a.signalId < b.signalId; });
    RecordingInfo info = builder.take();
    info.attributes = attributes_;
    if (keepsDescription_) {
      const std::string copy = std::string(kDescriptionFile) + kDamagedSuffix;
      if (!folder_.has(copy)) copyInto(folder_, copy, *folder_.open(kDescriptionFile));
      folder_.sync();
    }
    completeRecording(folder_, info);
    clearStorage(info);
    const auto faults = contentFaults(folder_, /*checksNames=*/true);
    if (!faults.empty()) {
      throw std::runtime_error(fmt::format("{}: recovered, but with faults: {}",
                                           folder_.path().string(), faults.front()));
    }
    removeLiveFiles(folder_);
  }

  Folder folder_;
  RecoveryLock lock_;
  std::optional<StorageFiles> storage_;
  std::vector<Salvage> signals_;
  Attributes attributes_;
  std::unordered_map<int, std::size_t> places_;  // in signals_, by signal id
  std::unordered_map<int, int> users_;           // parts by storage id
  std::set<int> named_;                          // files that the description names
  std::set<int> doubtful_;                       // files that are not what the description says
  std::vector<FileInfo> stated_;                 // what a damaged recording.json says of files
  bool isDescribed_ = false;                     // whether all signals are known
  bool hasJournal_ = false;
  bool isJournalSound_ = false;
  bool keepsDescription_ = false;
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
