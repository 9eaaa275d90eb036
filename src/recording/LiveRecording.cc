#include "kyr/recording/LiveRecording.h"

#include <fmt/format.h>

#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "recording/CompleteRecording.h"
#include "recording/FolderFiles.h"
#include "recording/LiveJournal.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingFormat.h"
#include "recording/RecordingMembers.h"
#include "recording/RecordingSnapshot.h"
#include "schema/TypeNames.h"
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

// The folder, with a journal that makes it this process's. Of two who try, one makes the journal.
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
      : folder_(wholePath(path)),
        syncs_(options.storage.sync != SafeStorage::Sync::never),
        journal_(takeFolder(folder_)) {
    SafeStorage storage = options.storage;
    storage.keepsFiles = true;
    storage.holdBelow = 0;  // a part that is finished is in a file
    try {
      pool_ = std::make_unique<parquet::SignalPool>(Path::fromFilesystem(folder_ / kStorageFolder),
                                                    storage);
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
      return;  // a host that wants to know flushes by itself
    }
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
    SignalInfo info;
    static_cast<SignalDescription&>(info) = description;
    info.dataType = type;
    info.category = category;
    if (info.name.empty()) info.name = fmt::format("signal {}", info.signalId);
    if (pool().checkSignalExists(info.signalId)) {
      throw std::invalid_argument(fmt::format("signal {} is there already", info.signalId));
    }
    if (dataTypeName(type).empty() || categoryName(category).empty()) {
      throw std::invalid_argument(fmt::format("signal {}: data type {} or category {} is unknown",
                                              info.signalId, static_cast<int>(type),
                                              static_cast<int>(category)));
    }
    requireText(info);
    pool_->describeSignal(info.signalId, info.name, info.unit);
    auto signal = pool_->getStreamableSignal(info.signalId);
    signal->setDataType(type);
    signal->setCategory(category);
    signals_.push_back(signal);
    live_.signals.push_back(std::move(info));
    isChanged_ = true;
    return signal;
  }

  // The rows first, then what they belong to, then that they are there.
  void flush() {
    pool().flush();
    for (std::size_t i = 0; i < signals_.size(); ++i) {
      noteFile(live_.signals[i].timeStorageId, storageIdOf(*signals_[i], Part::time));
      noteFile(live_.signals[i].dataStorageId, storageIdOf(*signals_[i], Part::data));
    }
    if (isChanged_) writeDescription();
    JournalLine line;
    line.sequence = live_.sequence;
    for (const auto& signal : signals_) {
      line.rows.push_back(signal->rowCount(Part::time));
      line.rows.push_back(signal->rowCount(Part::data));
    }
    journal_->append(line, syncs_);
  }

  void finish() {
    // Until recording.json is there, a recovery finds all rows acknowledged.
    flush();
    const std::vector<SignalDescription> descriptions(live_.signals.begin(), live_.signals.end());
    const RecordingInfo info = snapshotOf(*pool_, descriptions);
    completeRecording(folder_, info);
    // From here on the folder is a recording.
    removeUnnamed(folder_, info);
    pool_.reset();
    signals_.clear();
    removeLiveFiles(folder_);
    journal_.reset();
  }

 private:
  void noteFile(std::optional<int>& known, std::optional<int> now) {
    if (known == now) return;
    known = now;
    isChanged_ = true;
  }

  void writeDescription() {
    ++live_.sequence;
    replaceTextFile(folder_ / kLiveFile, writeLiveJson(live_), syncs_);
    isChanged_ = false;
  }

  fs::path folder_;
  bool syncs_;
  std::unique_ptr<LiveJournal> journal_;
  std::unique_ptr<parquet::SignalPool> pool_;
  std::vector<std::shared_ptr<parquet::StreamableSignal>> signals_;
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

void LiveRecording::flush() { impl_->flush(); }

void LiveRecording::finish() {
  if (!impl_->isFinished()) impl_->finish();
}

}  // namespace kyr::recording
