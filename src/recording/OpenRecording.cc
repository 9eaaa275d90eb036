#include <arrow/util/compression.h>
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "kyr/parquet/DirectoryUtilities.h"
#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/platform/FeatureFlag.h"
#include "kyr/recording/Recording.h"
#include "recording/LentFolder.h"
#include "recording/OpenFolder.h"
#include "recording/RecordingMembers.h"
#include "signals/SignalPoolImpl.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::recording {

namespace fs = std::filesystem;

namespace {

bool rowGroupMode() { return FeatureFlag::isEnabled("fKYRUseParquetRowGroup"); }

// The directory of the pool, which is made when something is written. Whoever only reads needs
// none.
Path workingDirectory() {
  try {
    return parquet::generateTempDirectoryName(u"parquetStorage");
  } catch (const fs::filesystem_error& error) {
    return Path::fromFilesystem(error.path1() / "parquetStorage");
  }
}

template <typename PoolSignal>
void describe(PoolSignal& opened, const SignalInfo& signal) {
  opened.setDataType(signal.dataType);
  opened.setCategory(signal.category);
  if (signal.compression == kNoCodec) return;
  const auto codec = ::arrow::util::Codec::GetCompressionType(signal.compression);
  if (codec.ok() && *codec != ::arrow::Compression::UNCOMPRESSED) {
    opened.setParquetCompressionType(*codec);
  }
}

std::pair<std::shared_ptr<const OpenFolder>, std::shared_ptr<const RecordingInfo>> openDescribed(
    const Path& folder, Links links) {
  return inOpenFolder(folder.toFilesystem(), links, [](const auto& open) {
    return std::pair(open, std::make_shared<const RecordingInfo>(describeRecording(*open)));
  });
}

}  // namespace

class Recording::Impl {
 public:
  Impl(std::shared_ptr<const OpenFolder> folder, std::shared_ptr<const RecordingInfo> recorded,
       const std::vector<const SignalInfo*>& signals)
      : info(std::move(recorded)), lent_(std::make_shared<LentFolder>(std::move(folder), info)) {
    int newIds = largestId() + 1;
    // The folder is there for sure. The pool's own directory need not be yet.
    pool = std::make_unique<parquet::SignalPool>(Path::fromFilesystem(lent_->path()),
                                                 parquet::SafeStorage());
    parquet::SignalPoolImpl& impl = parquet::PoolAccess::of(*pool);
    impl.setParquetDirectory(workingDirectory());
    const auto store = impl.sharedStore();
    store->ownDirectoryOnceNeeded();
    if (rowGroupMode()) lent_->splitTimes(signals, newIds);
    lent_->lend(signals);
    // New signals take ids behind all of the recording's, also behind those that are not opened.
    store->reserve(newIds - 1);
    store->offer(lent_);
    addSignals(impl, signals);
    store->endOffers();
  }

  std::shared_ptr<const RecordingInfo> info;
  std::unique_ptr<parquet::SignalPool> pool;

 private:
  int largestId() const {
    const int largest = info->files.empty() ? -1 : info->files.back().storageId;
    if (largest > std::numeric_limits<int>::max() / 2) {
      throw std::runtime_error(
          fmt::format("storage id {} leaves no room for new signals", largest));
    }
    return largest;
  }

  void addSignals(parquet::SignalPoolImpl& impl, const std::vector<const SignalInfo*>& signals) {
    for (const SignalInfo* const signal : signals) {
      const int id = signal->signalId;
      const std::optional<int> times = lent_->timeIdOf(*signal);
      pool->describeSignal(id, signal->name, signal->unit);
      if (times || signal->dataStorageId) {
        impl.adopt({id, times.value_or(parquet::kNoStorage),
                    signal->dataStorageId.value_or(parquet::kNoStorage)});
      }
      if (rowGroupMode()) {
        describe(*pool->getStreamableSignal(id), *signal);
      } else {
        describe(*pool->getSignal(id), *signal);
      }
    }
  }

  std::shared_ptr<LentFolder> lent_;
};

Recording::Recording(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Recording::~Recording() = default;
Recording::Recording(Recording&&) noexcept = default;
Recording& Recording::operator=(Recording&&) noexcept = default;

parquet::SignalPool& Recording::pool() { return *impl_->pool; }

const RecordingInfo& Recording::info() const { return *impl_->info; }

std::vector<SignalDescription> Recording::descriptions() const {
  std::vector<SignalDescription> result;
  for (const SignalInfo& signal : impl_->info->signals) {
    if (impl_->pool->checkSignalExists(signal.signalId)) result.push_back(signal);
  }
  return result;
}

Recording openRecording(const Path& folder, Links links) {
  auto [open, info] = openDescribed(folder, links);
  std::vector<const SignalInfo*> all;
  all.reserve(info->signals.size());
  for (const SignalInfo& signal : info->signals) all.push_back(&signal);
  return Recording(std::make_unique<Recording::Impl>(std::move(open), std::move(info), all));
}

Recording openRecording(const Path& folder, const std::vector<int>& signalIds, Links links) {
  auto [open, info] = openDescribed(folder, links);
  std::vector<const SignalInfo*> wanted;
  for (const int id : signalIds) {
    const auto found = std::lower_bound(
        info->signals.begin(), info->signals.end(), id,
        [](const SignalInfo& signal, int wantedId) { return signal.signalId < wantedId; });
    if (found == info->signals.end() || found->signalId != id) {
      throw std::invalid_argument(fmt::format("{}: has no signal {}", folder.toNarrow(), id));
    }
    wanted.push_back(&*found);
  }
  return Recording(std::make_unique<Recording::Impl>(std::move(open), std::move(info), wanted));
}

}  // namespace kyr::recording
