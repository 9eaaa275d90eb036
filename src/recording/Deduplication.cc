#include "kyr/recording/Deduplication.h"

#include <arrow/util/compression.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "files/ContentDigest.h"
#include "kyr/recording/DamagedError.h"
#include "kyr/recording/Recording.h"
#include "recording/ContentFiles.h"
#include "recording/DeduplicationPlan.h"
#include "recording/FolderFiles.h"
#include "recording/OpenFolder.h"
#include "recording/PackWriter.h"
#include "recording/PublishRecording.h"
#include "recording/RecordingFolder.h"

namespace kyr::recording {

namespace fs = std::filesystem;
using parquet::ContentReader;

namespace {

// Thrown for files that the file system gives no other name: they are on another file system, or
// have as many names as a file may have.
struct NotShared {
  std::set<fs::path> files;
};

// Whether the file has no other name.
bool isAlone(const fs::path& file) { return fs::hard_link_count(file) == 1; }

bool haveEqualRows(ContentReader& a, ContentReader& b) {
  if (a.rows() != b.rows() || !a.columns()->Equals(*b.columns(), /*check_metadata=*/false)) {
    return false;
  }
  bool areEqual = true;
  std::vector<char> numbers;
  const auto areNumbers = [&](const std::string& column, std::uint64_t first, std::size_t rows,
                              const void* expected, std::size_t bytes) {
    numbers.resize(bytes);
    b.readNumbers(column, first, rows, numbers.data());
    return bytes == 0 || std::memcmp(numbers.data(), expected, bytes) == 0;
  };
  parquet::forEachPiece(
      a, [&](std::uint64_t first, const parquet::RowSlice& rows, const double* times) {
        if (!areEqual) return;
        areEqual = a.isFlat() ? areNumbers(parquet::columnNames::data, first, rows.rows,
                                           rows.elements, rows.bytes)
                              : parquet::areEqual(b.read(first, rows.rows).rows, rows);
        if (times) {
          areEqual = areEqual && areNumbers(parquet::columnNames::time, first, rows.rows, times,
                                            rows.rows * sizeof(double));
        }
      });
  return areEqual;
}

}  // namespace

/// Makes the recording that shares files beside the one that does not yet.
class SharedRecording {
 public:
  SharedRecording(std::shared_ptr<const OpenFolder> folder,
                  std::shared_ptr<const RecordingInfo> info, const DeduplicationPlan& plan)
      : target_(folder->path()),
        old_(std::move(info)),
        plan_(plan),
        folder_(std::move(folder)),
        contents_(folder_, /*checks=*/true, /*maxOpenFiles=*/8),
        fresh_(target_.string() + kSavingInfix) {
    contents_.describe(old_, /*isLive=*/false);
    fs::create_directory(fresh_.path() / kStorageFolder);
    info_.formatVersion = old_->formatVersion;
    info_.attributes = old_->attributes;
    info_.signals = old_->signals;
    makePacks();
    linkFiles();
    std::sort(info_.files.begin(), info_.files.end(),
              [](const FileInfo& a, const FileInfo& b) { return a.storageId < b.storageId; });
    describeSignals();
    compare();
  }

  const RecordingInfo& info() const { return info_; }

  /// Bytes that are free once the old recording has gone, less those that are written.
  std::int64_t savedBytes() const {
    std::set<fs::path> freed;
    for (const DeduplicationPlan::Content& content : plan_.contents()) {
      const fs::path path = contentPath(target_, *content.old);
      if (freed.count(path) > 0) continue;
      const bool wasShared = content.place && areShared(path, content.place->path());
      // Files that stay have two names now.
      if (!wasShared && isAlone(path)) freed.insert(path);
    }
    std::int64_t bytes = -writtenBytes_;
    for (const fs::path& path : freed) bytes += static_cast<std::int64_t>(fs::file_size(path));
    return bytes;
  }

  /// Takes the place of the old recording.
  void publish() {
    if (folder_->isReplaced()) {
      throw std::runtime_error(target_.string() + ": was replaced meanwhile, and is left as it is");
    }
    disposeOf(publishRecording(fresh_, info_, target_, ReplaceOptions()), target_);
  }

 private:
  // New packs come first: their numbers begin at 0.
  void makePacks() {
    PackWriter packs(fresh_.path() / kStorageFolder, SaveOptions().encodings, /*startsSync=*/true);
    for (const DeduplicationPlan::Content& content : plan_.contents()) {
      if (!content.isRepacked) continue;
      changed_.push_back(&content);
      if (!given_.insert(content.id).second) continue;
      const auto reader = contents_.open(content.old->storageId);
      const parquet::HeldRows held = reader->read(0, reader->rows());
      FileInfo file = *content.old;
      file.storageId = content.id;
      packs.add(file, reader->schema(), reader->width(), reader->codec(), held.rows);
      info_.files.push_back(std::move(file));
    }
    info_.packs = packs.finish();
    for (const PackInfo& pack : info_.packs) {
      writtenBytes_ += static_cast<std::int64_t>(pack.size);
    }
  }

  void linkFiles() {
    for (const DeduplicationPlan::Content& content : plan_.contents()) {
      if (content.isRepacked) continue;
      const bool isShared = content.place != nullptr;
      // Contents of the recording that are equal become one, too.
      const bool isFirst = given_.insert(content.id).second;
      if (isShared || !isFirst) changed_.push_back(&content);
      if (!isFirst) continue;
      FileInfo file = isShared ? *content.place->file : *content.old;
      file.minimum = content.old->minimum;
      file.maximum = content.old->maximum;
      const fs::path& from = isShared ? content.place->run->folder : target_;
      if (file.pack) {
        const auto& packs = isShared ? content.place->run->packs : old_->packs;
        file.pack = linkPack(from, *file.pack, packs);
      } else {
        link(storagePath(from, file.storageId), storagePath(fresh_.path(), content.id), file);
      }
      file.storageId = content.id;
      info_.files.push_back(std::move(file));
    }
    if (!refused_.empty()) throw NotShared{std::move(refused_)};
  }

  // \return the pack's new number
  int linkPack(const fs::path& folder, int number, const std::vector<PackInfo>& packs) {
    const auto [known, isNew] =
        linked_.try_emplace({folder, number}, static_cast<int>(info_.packs.size()));
    if (!isNew) return known->second;
    PackInfo pack = packOf(packs, number);
    pack.number = known->second;
    link(packPath(folder, number), packPath(fresh_.path(), pack.number), pack);
    info_.packs.push_back(std::move(pack));
    return known->second;
  }

  // Puts a file into the new recording. It stays what its recording says.
  template <typename Info>
  void link(const fs::path& from, const fs::path& to, const Info& info) {
    if (shareFile(from, to) == Sharing::none) refused_.insert(from);
    if (!refused_.empty()) return;  // the recording is not going to be published
    if (digestFile(to).checksum != info.checksum) {
      throw DamagedError(from.string() + ": its checksum is wrong");
    }
  }

  void describeSignals() {
    for (SignalInfo& signal : info_.signals) {
      if (signal.timeStorageId) signal.timeStorageId = plan_.idOf(*signal.timeStorageId);
      if (signal.dataStorageId) signal.dataStorageId = plan_.idOf(*signal.dataStorageId);
    }
  }

  // A digest tells which contents may be equal, and this tells that they are.
  void compare() {
    ContentFiles fresh(std::make_shared<const OpenFolder>(fresh_.path()), /*checks=*/false,
                       /*maxOpenFiles=*/8);
    fresh.describe(std::make_shared<const RecordingInfo>(info_), /*isLive=*/false);
    std::map<int, std::string> codecs;
    for (const DeduplicationPlan::Content* content : changed_) {
      const auto before = contents_.open(content->old->storageId);
      const auto after = fresh.open(content->id);
      if (!haveEqualRows(*before, *after)) {
        throw std::runtime_error(
            fmt::format("{}: storage id {} has the digest of other rows, which are in {}",
                        target_.string(), content->old->storageId,
                        content->place ? content->place->path().string()
                                       : std::string("another of its files")));
      }
      codecs[content->id] = ::arrow::util::Codec::GetCodecAsString(after->codec());
    }
    for (SignalInfo& signal : info_.signals) {
      const auto codec = signal.dataStorageId ? codecs.find(*signal.dataStorageId) : codecs.end();
      if (codec != codecs.end()) signal.compression = codec->second;
    }
  }

  fs::path target_;
  std::shared_ptr<const RecordingInfo> old_;
  const DeduplicationPlan& plan_;
  std::shared_ptr<const OpenFolder> folder_;
  ContentFiles contents_;  // what the old recording has
  LockedFolder fresh_;
  RecordingInfo info_;
  std::int64_t writtenBytes_ = 0;
  std::set<int> given_;                             // ids that have their rows
  std::map<std::pair<fs::path, int>, int> linked_;  // new numbers of packs
  std::set<fs::path> refused_;                      // files that got no other name
  std::vector<const DeduplicationPlan::Content*> changed_;
};

class Deduplicator::Impl {
 public:
  void add(const Path& folder) {
    const fs::path path = canonicalFolder(folder.toFilesystem());
    index_.add(path, describeRecording(OpenFolder(path)));
  }

  DeduplicationReport deduplicate(const Path& folder) {
    const fs::path path = canonicalFolder(folder.toFilesystem());
    const auto open = std::make_shared<const OpenFolder>(path);
    const auto info = std::make_shared<const RecordingInfo>(describeRecording(*open));
    DeduplicationReport report;
    report.contents = info->files.size();
    const bool hasDigests =
        info->formatVersion == kFormatVersion &&
        std::all_of(info->files.begin(), info->files.end(),
                    [](const FileInfo& file) { return !file.contentDigest.empty(); });
    if (!hasDigests) {
      report.leftAlone =
          "it has no digests of its contents, as older versions wrote it; kyr repack adds them";
      return report;
    }
    index_.forgetFolder(path);  // a recording shares files with others, and may get new ones here
    index_.add(path, share(open, info, report));
    return report;
  }

 private:
  // Returns what the recording holds then.
  RecordingInfo share(const std::shared_ptr<const OpenFolder>& folder,
                      const std::shared_ptr<const RecordingInfo>& info,
                      DeduplicationReport& report) {
    std::string nothing = "it has nothing in common with those before it";
    while (true) {
      const DeduplicationPlan plan(*info, index_);
      if (!countShared(plan, folder->path(), report)) {
        report.leftAlone = report.sharedContents > 0 ? "it shares what it can already" : nothing;
        return *info;
      }
      try {
        return replace(folder, info, plan, report);
      } catch (const NotShared& error) {
        nothing = "the file system gives no other name to " + error.files.begin()->string();
        // Recordings to come share the files of this one instead. Files that the index does not
        // have are its own, which it cannot do without.
        if (index_.forgetFiles(error.files)) continue;
        report.leftAlone = nothing;
        report.sharedContents = 0;
        return *info;
      }
    }
  }

  // Counts the contents that others have, too. Returns whether any is not shared yet.
  static bool countShared(const DeduplicationPlan& plan, const fs::path& folder,
                          DeduplicationReport& report) {
    report.sharedContents = 0;
    bool isNew = false;
    for (const DeduplicationPlan::Content& content : plan.contents()) {
      if (!content.place) continue;
      ++report.sharedContents;
      isNew = isNew || !areShared(contentPath(folder, *content.old), content.place->path());
    }
    return isNew;
  }

  static RecordingInfo replace(const std::shared_ptr<const OpenFolder>& folder,
                               const std::shared_ptr<const RecordingInfo>& info,
                               const DeduplicationPlan& plan, DeduplicationReport& report) {
    SharedRecording shared(folder, info, plan);
    const std::int64_t saved = shared.savedBytes();
    if (saved > 0) {
      shared.publish();
      report.savedBytes = static_cast<std::uint64_t>(saved);
      return shared.info();
    }
    report.leftAlone = "sharing would save nothing";
    report.sharedContents = 0;
    return *info;
  }

  ContentIndex index_;
};

Deduplicator::Deduplicator() : impl_(std::make_unique<Impl>()) {}
Deduplicator::~Deduplicator() = default;

void Deduplicator::add(const Path& folder) { impl_->add(folder); }

DeduplicationReport Deduplicator::deduplicate(const Path& folder) {
  return impl_->deduplicate(folder);
}

}  // namespace kyr::recording
