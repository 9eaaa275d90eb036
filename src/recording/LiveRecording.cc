#include "kyr/recording/LiveRecording.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

#include "recording/Attributes.h"
#include "recording/CompleteRecording.h"
#include "recording/FolderFiles.h"
#include "recording/LiveJournal.h"
#include "recording/LiveSignal.h"
#include "recording/PackWriter.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingFormat.h"
#include "recording/RecordingMembers.h"
#include "recording/RecordingSnapshot.h"
#include "recording/SignalGroup.h"
#include "safe/Content.h"
#include "safe/SafeStreamableSignal.h"
#include "safe/SharedStore.h"
#include "schema/TypeNames.h"
#include "signals/SignalPoolImpl.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::recording {

namespace fs = std::filesystem;
using parquet::SafeStorage;
using Part = parquet::StreamableSignal::SignalPart;

namespace {

fs::path wholePath(const Path& folder) {
  const fs::path path = fs::absolute(folder.toFilesystem()).lexically_normal();
  return path.has_filename() ? path : path.parent_path();
}

std::optional<int> storageIdOf(const LiveSignal& signal, Part part) {
  const int id = signal.getStorageId(part);
  return id == parquet::kNoStorage ? std::nullopt : std::optional(id);
}

bool isNumber(KYRSignalDataType type) {
  return !dataTypeName(type).empty() && type != Null && type != ByteString && type != Binary;
}

// Makes the journal, which takes the folder for this process: of two that try, only one can make
// it.
std::unique_ptr<LiveJournal> takeFolder(const fs::path& folder) {
  const bool isNew = fs::create_directory(folder);
  if (!isNew && !fs::is_empty(folder)) {
    throw std::runtime_error(folder.string() + ": exists and is not empty");
  }
  try {
    auto journal = std::make_unique<LiveJournal>(folder);
    if (fs::create_directory(folder / kStorageFolder)) return journal;
  } catch (...) {
    std::error_code ignored;
    if (isNew) fs::remove(folder, ignored);
    throw;
  }
  throw std::runtime_error(folder.string() + ": is not empty any more");
}

}  // namespace

class LiveRecording::Impl {
 public:
  Impl(const Path& path, const LiveOptions& options)
      : Impl(path, options, normalised(options.attributes)) {}

  Impl(const Path& path, const LiveOptions& options, const Attributes& attributes)
      : folder_(wholePath(path)),
        syncs_(options.storage.sync != SafeStorage::Sync::never),
        journal_(takeFolder(folder_)),
        open_(folder_) {
    live_.attributes = attributes;
    if (syncs_) live_.sync = kSyncFlush;
    SafeStorage storage = options.storage;
    storage.keepsFiles = true;
    storage.holdBelow = 0;  // what is finished is in a file
    try {
      pool_ = std::make_unique<parquet::SignalPool>(Path::fromFilesystem(folder_ / kStorageFolder),
                                                    storage);
      store_ = parquet::PoolAccess::of(*pool_).sharedStore();
      store().usePacks();
      store().setExtension(kStorageExtension);
      writeDescription();
      writeLine({}, /*isInPack=*/false);
      if (syncs_) syncPath(folder_.parent_path());
    } catch (...) {
      std::error_code ignored;
      fs::remove_all(folder_, ignored);
      throw;
    }
  }

  ~Impl() {
    if (!pool_ || *isClosed_) return;
    try {
      flush();
    } catch (const std::exception&) {
      // A host that wants to know flushes by itself.
    }
    *isClosed_ = true;
    // Signals of the pool may still be held. A recovery must find what the last flush left.
    store().close();
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  parquet::SignalPool& pool() {
    if (!pool_) throw std::logic_error(folder_.string() + ": the recording is finished");
    return *pool_;
  }

  bool isFinished() const { return !journal_; }

  std::shared_ptr<LiveSignal> addSignal(const SignalDescription& description,
                                        KYRSignalDataType type, KYRSignalCategory category) {
    SignalInfo info = requireNew(description, type, category);
    pool_->describeSignal(info.signalId, info.name, info.unit);
    auto inner = pool_->getStreamableSignal(info.signalId);
    inner->setDataType(type);
    inner->setCategory(category);
    signals_.push_back(std::make_shared<LiveSignal>(
        std::static_pointer_cast<parquet::SafeStreamableSignal>(inner), info, isClosed_));
    ids_.insert(info.signalId);
    live_.signals.push_back(std::move(info));
    isChanged_ = true;
    return signals_.back();
  }

  std::shared_ptr<SignalGroup::Impl> addGroup(const std::vector<SignalDescription>& descriptions,
                                              KYRSignalDataType type) {
    if (descriptions.empty()) throw std::invalid_argument("a group without signals");
    if (!isNumber(type)) {
      throw std::invalid_argument(
          fmt::format("a group of signals of the type {}: only numbers can be appended as an array",
                      dataTypeName(type)));
    }
    std::set<int> ids;
    for (const SignalDescription& description : descriptions) {
      requireNew(description, type, Scalar);
      if (ids.insert(description.signalId).second) continue;
      throw std::invalid_argument(
          fmt::format("signal {} is twice in a group", description.signalId));
    }
    std::vector<std::shared_ptr<parquet::SafeStreamableSignal>> signals;
    signals.reserve(descriptions.size());
    for (const SignalDescription& description : descriptions) {
      signals.push_back(addSignal(description, type, Scalar)->inPool());
    }
    groups_.push_back(std::make_shared<SignalGroup::Impl>(std::move(signals),
                                                          parquet::elementWidth(type), isClosed_));
    return groups_.back();
  }

  // Writes the rows first, then to which signals they belong, then that they are there.
  void flush() {
    requirePool();
    for (const auto& group : groups_) group->store();
    writeDetached();
    CountedRows rows = flushPool();
    if (isChanged_) writeDescription();
    writeLine(std::move(rows.line), rows.isInPack);
    store().noteFlush();
  }

  void finish() {
    if (*isClosed_) return cleanUp();  // again, after that has failed
    // Until recording.json is there, a recovery finds all rows acknowledged.
    flush();
    try {
      cutUnpaired();
      complete();
    } catch (...) {
      // The recording goes on.
      for (auto& [signal, before] : uncut_) signal->restore(std::move(before));
      uncut_.clear();
      report_.unpaired.clear();
      throw;
    }
    // From here on the folder is a recording.
    *isClosed_ = true;
    store().close();
    cleanUp();
  }

  const FinishReport& report() const { return report_; }

 private:
  struct CountedRows {
    JournalLine line;
    bool isInPack;  // whether a pack on the disk has the line
  };

  // Notes what the signals have now.
  JournalLine countRows() {
    JournalLine line;
    line.sequence = live_.sequence;
    line.number = ++lines_;
    line.rows.reserve(2 * signals_.size());
    for (std::size_t i = 0; i < signals_.size(); ++i) {
      LiveSignal& signal = *signals_[i];
      SignalInfo& info = live_.signals[i];
      note(info.dataType, signal.getDataType());
      note(info.category, signal.getCategory());
      note(info.timeStorageId, storageIdOf(signal, Part::time));
      note(info.dataStorageId, storageIdOf(signal, Part::data));
      line.rows.push_back(signal.rowCount(Part::time));
      line.rows.push_back(signal.rowCount(Part::data));
    }
    return line;
  }

  // Writes the rows. If they are synced, and the last line of the journal is of the signals as they
  // are, a pack gets the new line, too: its sync then is the only one that a flush needs. A line of
  // another list may be the newest one only if the journal has it: what the list says of the
  // signals before it is what the journal acknowledged.
  CountedRows flushPool() {
    std::optional<JournalLine> line;
    bool isInPack = false;
    const auto noteOfFlush = [&]() -> std::string {
      line = countRows();
      isInPack = !isChanged_ && live_.sequence == acknowledgedSequence_;
      if (!isInPack) return "";
      std::string text = writeJournalLine(*line);
      text.pop_back();  // the line feed
      return text;
    };
    if (syncs_) store().setFlushNote(noteOfFlush);
    try {
      pool().flush();
    } catch (...) {
      store().setFlushNote({});
      throw;
    }
    store().setFlushNote({});
    return {line ? *std::move(line) : countRows(), isInPack};
  }

  // What the list will say of a new signal.
  SignalInfo requireNew(const SignalDescription& description, KYRSignalDataType type,
                        KYRSignalCategory category) {
    SignalInfo info;
    static_cast<SignalDescription&>(info) = description;
    info.dataType = type;
    info.category = category;
    if (info.name.empty()) info.name = fmt::format("signal {}", info.signalId);
    // Readers and recoveries go by the ids of all signals that were ever added.
    if (pool().checkSignalExists(info.signalId) || ids_.count(info.signalId) > 0) {
      throw std::invalid_argument(
          fmt::format("signal {} was added before: an id can be added only once", info.signalId));
    }
    requireWritable(info);
    return info;
  }

  template <typename Value>
  void note(Value& known, const Value& now) {
    if (known == now) return;
    known = now;
    isChanged_ = true;
  }

  // Brings rows of signals that the pool has no longer to its store, because somebody still appends
  // to them, and the journal counts their rows. finish() leaves them out.
  void writeDetached() {
    const parquet::SignalPoolImpl& impl = parquet::PoolAccess::of(pool());
    if (std::exchange(removals_, impl.removals()) != impl.removals()) {
      detached_.clear();
      for (std::size_t i = 0; i < signals_.size(); ++i) {
        const auto found = impl.allSignals().find(live_.signals[i].signalId);
        const auto* const signal =
            found == impl.allSignals().end()
                ? nullptr
                : std::get_if<std::shared_ptr<parquet::StreamableSignal>>(&found->second);
        if (signal == nullptr || *signal != signals_[i]->inPool()) {
          detached_.push_back(signals_[i]);
        }
      }
    }
    for (const auto& signal : detached_) signal->inPool()->write();
  }

  parquet::SharedStore& store() { return *store_; }

  // A pool that was given another directory stores nothing here any more.
  void requirePool() {
    if (parquet::PoolAccess::of(pool()).sharedStore() == store_) return;
    throw std::logic_error(folder_.string() + ": the recording's pool has another directory now");
  }

  // Makes the folder a finished recording.
  void complete() {
    if (hasManySmall()) store().keepFinishedInMemory();
    const std::vector<SignalDescription> descriptions(live_.signals.begin(), live_.signals.end());
    finished_ = snapshotOf(*pool_, descriptions);
    finished_.attributes = live_.attributes;
    pack(finished_);
    syncPath(folder_.parent_path());
    try {
      // With a pool that syncs, each file was synced when it was finished.
      completeRecording(open_, finished_, /*syncsFiles=*/!syncs_);
    } catch (...) {
      withdrawDescription();
      throw;
    }
  }

  // Whether packs are faster than a file for each content that has none.
  bool hasManySmall() {
    constexpr std::size_t kFew = 300;
    std::size_t count = 0;
    store().forEachContent([&count](parquet::Content& content) {
      if (!content.hasOwnFile()) ++count;
    });
    return count > kFew;
  }

  // Removes what a finished recording does not need.
  void cleanUp() {
    // A recovery is to remove the files that are left and that recording.json does not name.
    const bool isClean = removeUnnamed(open_, finished_);
    uncut_.clear();
    store_.reset();
    pool_.reset();
    signals_.clear();
    detached_.clear();
    groups_.clear();
    if (isClean) removeLiveFiles(open_);
    journal_.reset();
  }

  // Writes the contents that have no file into packs.
  void pack(RecordingInfo& info) {
    const Folder storage = open_.folder(kStorageFolder);
    for (const std::string& name : storage.names()) {
      if (isPackName(name)) storage.tryRemove(name);  // from a call that failed
    }
    PackWriter packs(folder_ / kStorageFolder, store().options().encodings, /*startsSync=*/true);
    for (FileInfo& file : info.files) {
      const auto content = store().find(file.storageId);
      if (!content || content->hasOwnFile()) continue;
      packs.add(file, content->schema(), elementBytes(content->schema()), content->codec(),
                content->allRows().rows);
    }
    info.packs = packs.finish();
  }

  // Cuts times and samples of each signal that has both to the shorter of the two.
  void cutUnpaired() {
    std::map<int, std::string> names;
    for (const SignalInfo& signal : live_.signals) names[signal.signalId] = signal.name;
    for (const auto& [id, signal] : parquet::PoolAccess::of(*pool_).allSignals()) {
      const auto* streamed = std::get_if<std::shared_ptr<parquet::StreamableSignal>>(&signal);
      if (streamed == nullptr) continue;
      const std::uint64_t times = (*streamed)->rowCount(Part::time);
      const std::uint64_t samples = (*streamed)->rowCount(Part::data);
      if (times == samples || times == 0 || samples == 0) continue;
      const std::uint64_t pairs = std::min(times, samples);
      auto& cut = static_cast<parquet::SafeStreamableSignal&>(**streamed);
      uncut_.emplace_back(&cut, cut.cut(pairs));
      const auto name = names.find(id);
      report_.unpaired.push_back({id,
                                  name == names.end() ? fmt::format("signal {}", id) : name->second,
                                  times - pairs, samples - pairs});
    }
    std::sort(report_.unpaired.begin(), report_.unpaired.end(),
              [](const auto& a, const auto& b) { return a.signalId < b.signalId; });
  }

  // A process that ends before the next line leaves a list that is newer than the journal. What the
  // journal says of a signal whose rows were forgotten since then is of rows that are still there.
  void writeDescription() {
    journal_->removeRest();  // may be a whole line, which acknowledged nothing
    if (isWithdrawn_) open_.remove(kDescriptionFile);
    isWithdrawn_ = false;
    live_.before.clear();
    for (std::size_t i = 0; i < acknowledged_.size(); ++i) {
      const SignalContents& known = acknowledged_[i];
      if (known.isEmpty() || known == SignalContents(live_.signals[i])) continue;
      live_.before.push_back(known.of(live_.signals[i]));
    }
    ++live_.sequence;
    replaceTextFile(open_, kLiveFile, writeLiveJson(live_), syncs_);
    isChanged_ = false;
  }

  // Tells that the rows are there. The first line, before any flush, tells that there are none, so
  // that a journal without a line is known to be damaged.
  // \param isInPack  whether a pack on the disk has the line, too
  void writeLine(JournalLine line, bool isInPack) {
    line.sequence = live_.sequence;
    journal_->append(line, syncs_, isInPack);
    // The line stands from here on, whatever fails.
    store().noteAcknowledged();
    if (line.sequence != acknowledgedSequence_) noteAcknowledged();
    journal_->syncName();
  }

  // Called when recording.json may be there and finish() fails. A recovery would believe it, and
  // drop rows that are flushed from now on. The next flush makes sure that it has gone.
  void withdrawDescription() {
    open_.tryRemove(kDescriptionFile);
    open_.tryRemove(kSignalsFile);
    isWithdrawn_ = true;
    isChanged_ = true;
  }

  void noteAcknowledged() {
    acknowledged_ = std::vector<SignalContents>(live_.signals.begin(), live_.signals.end());
    acknowledgedSequence_ = live_.sequence;
  }

  fs::path folder_;
  bool syncs_;
  std::unique_ptr<LiveJournal> journal_;
  Folder open_;  // the folder
  std::unique_ptr<parquet::SignalPool> pool_;
  std::shared_ptr<parquet::SharedStore> store_;  // in the folder
  std::vector<std::shared_ptr<LiveSignal>> signals_;
  std::vector<std::shared_ptr<LiveSignal>> detached_;  // those that the pool has no longer
  std::uint64_t removals_ = 0;                         // of the pool, when that was found
  std::vector<std::shared_ptr<SignalGroup::Impl>> groups_;
  std::shared_ptr<bool> isClosed_ = std::make_shared<bool>(false);
  FinishReport report_;
  // What finish() has cut, until it succeeds.
  std::vector<std::pair<parquet::SafeStreamableSignal*,
                        std::pair<parquet::Part::Uncut, parquet::Part::Uncut>>>
      uncut_;
  RecordingInfo finished_;  // what recording.json says, once the recording is closed
  LiveDescription live_;
  std::vector<SignalContents> acknowledged_;  // by the last line of the journal
  std::uint64_t acknowledgedSequence_ = 0;
  std::uint64_t lines_ = 0;      // that were made, whatever became of them
  std::unordered_set<int> ids_;  // of the signals in live_
  bool isChanged_ = false;
  bool isWithdrawn_ = false;  // recording.json must not be there
};

LiveRecording::LiveRecording(const Path& folder, const LiveOptions& options)
    : impl_(std::make_unique<Impl>(folder, options)) {}

LiveRecording::~LiveRecording() = default;

parquet::SignalPool& LiveRecording::pool() { return impl_->pool(); }

std::shared_ptr<parquet::StreamableSignal> LiveRecording::addSignal(
    const SignalDescription& description, KYRSignalDataType type, KYRSignalCategory category) {
  return impl_->addSignal(description, type, category);
}

std::shared_ptr<SignalGroup> LiveRecording::addGroup(
    const std::vector<SignalDescription>& descriptions, KYRSignalDataType type) {
  return std::shared_ptr<SignalGroup>(new SignalGroup(impl_->addGroup(descriptions, type)));
}

void LiveRecording::flush() { impl_->flush(); }

FinishReport LiveRecording::finish() {
  if (!impl_->isFinished()) impl_->finish();
  return impl_->report();
}

}  // namespace kyr::recording
