#include <arrow/util/compression.h>
#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>

#include "files/pack/PackFile.h"
#include "kyr/parquet/DirectoryUtilities.h"
#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/platform/FeatureFlag.h"
#include "kyr/recording/Recording.h"
#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"
#include "recording/TimeColumn.h"
#include "signals/SignalPoolImpl.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::recording {

namespace fs = std::filesystem;

namespace {

// A new directory for the private copy. Whatever happens to the pool's files, the directory goes
// once it is empty.
class WorkingDirectory {
 public:
  WorkingDirectory() : path_(parquet::generateTempDirectoryName(u"parquetStorage")) {
    parquet::createDirectory(path_);
    fs::permissions(path_.toFilesystem(), fs::perms::owner_all);
  }
  ~WorkingDirectory() {
    std::error_code ignored;
    fs::remove(path_.toFilesystem(), ignored);
  }
  WorkingDirectory(const WorkingDirectory&) = delete;
  WorkingDirectory& operator=(const WorkingDirectory&) = delete;

  const Path& path() const { return path_; }

  void clear() {
    std::error_code ignored;
    fs::remove_all(path_.toFilesystem(), ignored);
  }

 private:
  Path path_;
};

void copyChecked(const fs::path& folder, const FileInfo& file, const fs::path& directory) {
  const fs::path source = storagePath(folder, file.storageId);
  if (!fs::exists(source)) throw std::runtime_error(source.string() + ": missing");
  const std::uint64_t size = fs::file_size(source);
  if (size != file.size) {
    throw std::runtime_error(
        fmt::format("{}: damaged: {} bytes long, expected {}", source.string(), size, file.size));
  }
  const FileDigest copied = copyFile(source, directory / std::to_string(file.storageId));
  if (copied.checksum != file.checksum) {
    throw std::runtime_error(fmt::format("{}: damaged: its checksum is {}, expected {}",
                                         source.string(), copied.checksum, file.checksum));
  }
}

// The pack, open and compared with its checksum.
std::shared_ptr<DiskFile> openChecked(const fs::path& folder, const PackInfo& pack) {
  const fs::path path = packPath(folder, pack.number);
  if (!fs::exists(path)) throw std::runtime_error(path.string() + ": missing");
  auto file = std::make_shared<DiskFile>(path, DiskFile::Mode::readOnly);
  const FileDigest digest = digestOf(*file);
  if (digest.size != pack.size) {
    throw std::runtime_error(fmt::format("{}: damaged: {} bytes long, expected {}", path.string(),
                                         digest.size, pack.size));
  }
  if (digest.checksum != pack.checksum) {
    throw std::runtime_error(fmt::format("{}: damaged: its checksum is {}, expected {}",
                                         path.string(), digest.checksum, pack.checksum));
  }
  return file;
}

std::shared_ptr<DiskFile> copyOf(const DiskFile& file, const fs::path& directory) {
  const fs::path path = directory / file.path().filename();
  auto copy = std::make_shared<DiskFile>(path, DiskFile::Mode::createNew);
  forEachPieceOf(file,
                 [&](std::string_view piece, std::uint64_t at) { copy->writeAt(at, {piece}); });
  return copy;
}

bool rowGroupMode() { return FeatureFlag::isEnabled("fKYRUseParquetRowGroup"); }

template <typename PoolSignal>
void describe(PoolSignal& opened, const SignalInfo& signal) {
  opened.setDataType(signal.dataType);
  opened.setCategory(signal.category);
  const auto codec = ::arrow::util::Codec::GetCompressionType(signal.compression);
  if (codec.ok() && *codec != ::arrow::Compression::UNCOMPRESSED) {
    opened.setParquetCompressionType(*codec);
  }
}

}  // namespace

class Recording::Impl {
 public:
  Impl(const fs::path& folder, RecordingInfo recorded, std::vector<SignalInfo> wanted)
      : info(std::move(recorded)) {
    std::set<int> needed;
    for (const SignalInfo& signal : wanted) {
      for (const auto& id : {signal.timeStorageId, signal.dataStorageId}) {
        if (id) needed.insert(*id);
      }
    }
    try {
      std::vector<const FileInfo*> packed;
      for (const FileInfo& file : info.files) {
        if (needed.count(file.storageId) == 0) continue;
        if (file.pack) {
          packed.push_back(&file);
        } else {
          copyChecked(folder, file, working.path().toFilesystem());
        }
      }
      if (rowGroupMode()) splitTimeColumns(wanted);
      openPool();
      openPacks(folder, packed);
      addSignals(wanted);
    } catch (...) {
      working.clear();
      throw;
    }
  }

  RecordingInfo info;
  WorkingDirectory working;
  std::unique_ptr<parquet::SignalPool> pool;

 private:
  // Streamable signals have their time in a file of its own: gives one to each signal whose time is
  // a column of its data file.
  void splitTimeColumns(std::vector<SignalInfo>& wanted) const {
    const fs::path directory = working.path().toFilesystem();
    std::map<int, int> timeFileOf;
    for (SignalInfo& signal : wanted) {
      if (signal.timeStorageId || !signal.dataStorageId || isPacked(*signal.dataStorageId))
        continue;
      const auto known = timeFileOf.find(*signal.dataStorageId);
      if (known != timeFileOf.end()) {
        signal.timeStorageId = known->second;
        continue;
      }
      const int timeId = largestId() + 1 + static_cast<int>(timeFileOf.size());
      if (splitTimeColumn(directory / std::to_string(*signal.dataStorageId),
                          directory / std::to_string(timeId))) {
        timeFileOf.emplace(*signal.dataStorageId, timeId);
        signal.timeStorageId = timeId;
      }
    }
  }

  // Packs have no column of times.
  bool isPacked(int storageId) const {
    const auto file =
        std::lower_bound(info.files.begin(), info.files.end(), storageId,
                         [](const FileInfo& listed, int id) { return listed.storageId < id; });
    return file != info.files.end() && file->storageId == storageId && file->pack;
  }

  // Packs are read where they lie, through descriptors that stay open: whatever becomes of the saved
  // folder, their bytes stay. Those that are too many for that are copied.
  void openPacks(const fs::path& folder, const std::vector<const FileInfo*>& packed) {
    constexpr std::size_t kMaxDescriptors = 32;
    const auto cache = std::make_shared<parquet::RowGroupCache>();
    std::map<int, std::shared_ptr<parquet::PackFile>> opened;
    const auto& store = parquet::PoolAccess::of(*pool).sharedStore();
    for (const FileInfo* file : packed) {
      auto& pack = opened[*file->pack];
      if (!pack) {
        const bool isCopied = opened.size() > kMaxDescriptors;
        const PackInfo& listed = packOf(*file->pack);
        auto checked = openChecked(folder, listed);
        if (isCopied) checked = copyOf(*checked, working.path().toFilesystem());
        pack = std::make_shared<parquet::PackFile>(std::move(checked), isCopied, cache);
        if (pack->rows() != listed.rowCount) {
          throw std::runtime_error(fmt::format("{}: holds {} rows, expected {}",
                                               packPath(folder, listed.number).string(),
                                               pack->rows(), listed.rowCount));
        }
      }
      store->offerPacked(file->storageId, {pack, file->firstRow, file->rowCount});
    }
  }

  const PackInfo& packOf(int number) const {
    return *std::find_if(info.packs.begin(), info.packs.end(),
                         [number](const PackInfo& pack) { return pack.number == number; });
  }

  int largestId() const {
    const int largest = info.files.empty() ? -1 : info.files.back().storageId;
    if (largest > std::numeric_limits<int>::max() / 2) {
      throw std::runtime_error(
          fmt::format("storage id {} leaves no room for new signals", largest));
    }
    return largest;
  }

  // New signals take ids behind all of the recording's, also behind those that were not copied.
  void openPool() {
    const fs::path last = working.path().toFilesystem() / std::to_string(largestId() + 1);
    const bool isNew = !fs::exists(last);
    if (isNew) writeNewFile(last, "");
    pool = std::make_unique<parquet::SignalPool>(working.path(), parquet::SafeStorage());
    if (isNew) fs::remove(last);
  }

  void addSignals(const std::vector<SignalInfo>& signals) {
    parquet::SignalPoolImpl& impl = parquet::PoolAccess::of(*pool);
    for (const SignalInfo& signal : signals) {
      pool->describeSignal(signal.signalId, signal.name, signal.unit);
      if (signal.timeStorageId || signal.dataStorageId) {
        impl.adopt({signal.signalId, signal.timeStorageId.value_or(parquet::kNoStorage),
                    signal.dataStorageId.value_or(parquet::kNoStorage)});
      }
      if (rowGroupMode()) {
        describe(*pool->getStreamableSignal(signal.signalId), signal);
      } else {
        describe(*pool->getSignal(signal.signalId), signal);
      }
    }
    impl.sharedStore()->dropOffers();
  }
};

Recording::Recording(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Recording::~Recording() = default;
Recording::Recording(Recording&&) noexcept = default;
Recording& Recording::operator=(Recording&&) noexcept = default;

parquet::SignalPool& Recording::pool() { return *impl_->pool; }

const RecordingInfo& Recording::info() const { return impl_->info; }

std::vector<SignalDescription> Recording::descriptions() const {
  std::vector<SignalDescription> result;
  for (const SignalInfo& signal : impl_->info.signals) {
    if (impl_->pool->checkSignalExists(signal.signalId)) result.push_back(signal);
  }
  return result;
}

Recording openRecording(const Path& folder) {
  RecordingInfo info = describeRecording(folder);
  std::vector<SignalInfo> all = info.signals;
  return Recording(
      std::make_unique<Recording::Impl>(folder.toFilesystem(), std::move(info), std::move(all)));
}

Recording openRecording(const Path& folder, const std::vector<int>& signalIds) {
  RecordingInfo info = describeRecording(folder);
  std::vector<SignalInfo> wanted;
  for (const int id : signalIds) {
    const auto found = std::lower_bound(
        info.signals.begin(), info.signals.end(), id,
        [](const SignalInfo& signal, int wantedId) { return signal.signalId < wantedId; });
    if (found == info.signals.end() || found->signalId != id) {
      throw std::invalid_argument(fmt::format("{}: has no signal {}", folder.toNarrow(), id));
    }
    wanted.push_back(*found);
  }
  return Recording(
      std::make_unique<Recording::Impl>(folder.toFilesystem(), std::move(info), wanted));
}

}  // namespace kyr::recording
