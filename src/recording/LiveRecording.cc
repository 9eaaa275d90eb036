#include "kyr/recording/LiveRecording.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>
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

std::optional<int> storageIdOf(const parquet::StreamableSignal& signal, Part part) {
  const int id = signal.getStorageId(part);
  return id == parquet::kNoStorage ? std::nullopt : std::optional(id);
}

bool isNumber(KYRSignalDataType type) {
  return !dataTypeName(type).empty() && type != Null && type != ByteString && type != Binary;
}

// What recording.json and the list of signals can hold, told before there are samples.
void requireWritable(const SignalInfo& signal) {
  constexpr std::size_t kMostTextBytes = 65536;
  if (dataTypeName(signal.dataType).empty() || categoryName(signal.category).empty()) {
    throw std::invalid_argument(fmt::format("signal {}: data type {} or category {} is unknown",
                                            signal.signalId, static_cast<int>(signal.dataType),
                                            static_cast<int>(signal.category)));
  }
  requireText(signal);
  for (const auto& [what, text] : {std::pair("name", &signal.name),
                                   {"unit", &signal.unit},
                                   {"description", &signal.description}}) {
    if (text->size() > kMostTextBytes) {
      throw std::invalid_argument(
          fmt::format("signal {}: its {} has {} bytes, at most {} are possible", signal.signalId,
                      what, text->size(), kMostTextBytes));
    }
  }
  requireCountable(signal);
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
    SafeStorage storage = options.storage;
    storage.keepsFiles = true;
    storage.holdBelow = 0;  // what is finished is in a file
    try {
      pool_ = std::make_unique<parquet::SignalPool>(Path::fromFilesystem(folder_ / kStorageFolder),
                                                    storage);
      store().usePacks();
      store().setExtension(kStorageExtension);
      writeDescription();
      if (syncs_) syncPath(folder_.parent_path());
    } catch (...) {
      std::error_code ignored;
      fs::remove_all(folder_, ignored);
      throw;
    }
  }

  ~Impl() {
    if (!pool_) return;
    try {
      flush();
    } catch (const std::exception&) {
      // A host that wants to know flushes by itself.
    }
    *isClosed_ = true;
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  parquet::SignalPool& pool() {
    if (!pool_) throw std::logic_error(folder_.string() + ": the recording is finished");
    return *pool_;
  }

  bool isFinished() const { return !pool_; }

  std::shared_ptr<parquet::StreamableSignal> addSignal(const SignalDescription& description,
                                                       KYRSignalDataType type,
                                                       KYRSignalCategory category) {
    SignalInfo info = requireNew(description, type, category);
    pool_->describeSignal(info.signalId, info.name, info.unit);
    auto inner = pool_->getStreamableSignal(info.signalId);
    inner->setDataType(type);
    inner->setCategory(category);
    signals_.push_back(std::make_shared<LiveSignal>(std::move(inner), info, isClosed_));
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
    std::vector<std::shared_ptr<parquet::StreamableSignal>> signals;
    signals.reserve(descriptions.size());
    for (const SignalDescription& description : descriptions) {
      signals.push_back(addSignal(description, type, Scalar));
    }
    groups_.push_back(std::make_shared<SignalGroup::Impl>(std::move(signals),
                                                          parquet::elementWidth(type), isClosed_));
    return groups_.back();
  }

  // Writes the rows first, then to which signals they belong, then that they are there.
  void flush() {
    for (const auto& group : groups_) group->store();
    pool().flush();
    for (std::size_t i = 0; i < signals_.size(); ++i) {
      SignalInfo& info = live_.signals[i];
      note(info.dataType, signals_[i]->getDataType());
      note(info.category, signals_[i]->getCategory());
      note(info.timeStorageId, storageIdOf(*signals_[i], Part::time));
      note(info.dataStorageId, storageIdOf(*signals_[i], Part::data));
    }
    if (isChanged_) writeDescription();
    JournalLine line;
    line.sequence = live_.sequence;
    for (const auto& signal : signals_) {
      line.rows.push_back(signal->rowCount(Part::time));
      line.rows.push_back(signal->rowCount(Part::data));
    }
    journal_->append(line, syncs_);
    store().noteFlush();
  }

  void finish() {
    // Until recording.json is there, a recovery finds all rows acknowledged.
    flush();
    cutUnpaired();
    if (hasManySmall()) store().keepFinishedInMemory();
    const std::vector<SignalDescription> descriptions(live_.signals.begin(), live_.signals.end());
    RecordingInfo info = snapshotOf(*pool_, descriptions);
    info.attributes = live_.attributes;
    pack(info);
    // With a pool that syncs, each file was synced when it was finished.
    completeRecording(open_, info, /*syncsFiles=*/!syncs_);
    syncPath(folder_.parent_path());
    // From here on the folder is a recording.
    *isClosed_ = true;
    store().noteSaved();
    // A recovery is to remove the files that are left and that it does not name.
    const bool isClean = removeUnnamed(open_, info);
    pool_.reset();
    signals_.clear();
    groups_.clear();
    if (isClean) removeLiveFiles(open_);
    journal_.reset();
  }

  const FinishReport& report() const { return report_; }

 private:
  // What the list will say of a new signal.
  SignalInfo requireNew(const SignalDescription& description, KYRSignalDataType type,
                        KYRSignalCategory category) {
    SignalInfo info;
    static_cast<SignalDescription&>(info) = description;
    info.dataType = type;
    info.category = category;
    if (info.name.empty()) info.name = fmt::format("signal {}", info.signalId);
    if (pool().checkSignalExists(info.signalId)) {
      throw std::invalid_argument(fmt::format("signal {} is there already", info.signalId));
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

  parquet::SharedStore& store() { return *parquet::PoolAccess::of(*pool_).sharedStore(); }

  // Whether packs are faster than a file for each content that has none.
  bool hasManySmall() {
    constexpr std::size_t kFew = 300;
    std::size_t count = 0;
    store().forEachContent([&count](parquet::Content& content) {
      if (!content.hasOwnFile()) ++count;
    });
    return count > kFew;
  }

  // Writes the contents that have no file into packs.
  void pack(RecordingInfo& info) {
    const Folder storage = open_.folder(kStorageFolder);
    for (const std::string& name : storage.names()) {
      if (isPackName(name)) storage.tryRemove(name);  // from a call that failed
    }
    PackWriter packs(folder_ / kStorageFolder, store().options().encodings);
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
      static_cast<parquet::SafeStreamableSignal&>(**streamed).cut(pairs);
      const auto name = names.find(id);
      report_.unpaired.push_back({id,
                                  name == names.end() ? fmt::format("signal {}", id) : name->second,
                                  times - pairs, samples - pairs});
    }
    std::sort(report_.unpaired.begin(), report_.unpaired.end(),
              [](const auto& a, const auto& b) { return a.signalId < b.signalId; });
  }

  void writeDescription() {
    ++live_.sequence;
    replaceTextFile(open_, kLiveFile, writeLiveJson(live_), syncs_);
    isChanged_ = false;
  }

  fs::path folder_;
  bool syncs_;
  std::unique_ptr<LiveJournal> journal_;
  Folder open_;  // the folder
  std::unique_ptr<parquet::SignalPool> pool_;
  std::vector<std::shared_ptr<LiveSignal>> signals_;
  std::vector<std::shared_ptr<SignalGroup::Impl>> groups_;
  std::shared_ptr<bool> isClosed_ = std::make_shared<bool>(false);
  FinishReport report_;
  LiveDescription live_;
  bool isChanged_ = false;
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
