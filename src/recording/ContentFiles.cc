#include "recording/ContentFiles.h"

#include <sys/resource.h>

#include <algorithm>
#include <utility>

#include "recording/ContentChecks.h"
#include "recording/LiveState.h"
#include "recording/RecordingFolder.h"

namespace kyr::recording {

namespace {

// Storage ids may be negative, so that packs get the odd numbers.
std::int64_t keyOfContent(int storageId) { return 2 * std::int64_t{storageId}; }
std::int64_t keyOfPack(int number) { return 2 * std::int64_t{number} + 1; }

// The content's row behind its runs.
std::uint64_t endOf(const std::vector<parquet::ContentRun>& runs) {
  return runs.empty() ? 0 : runs.back().first + runs.back().count;
}

[[noreturn]] void refuse(const std::filesystem::path& file, const std::string& what) {
  throw std::runtime_error(fmt::format("{}: {}", file.string(), what));
}

[[noreturn]] void refuseSize(const std::filesystem::path& file, std::uint64_t found,
                             std::uint64_t expected) {
  refuse(file, fmt::format("damaged: {} bytes long, expected {}", found, expected));
}

// What a description says of a file; empty if it does not list it.
std::string checksumOf(const RecordingInfo& info, const std::string& name) {
  for (const FileInfo& file : info.files) {
    if (!file.pack && fileName(info, file) == name) return file.checksum;
  }
  for (const PackInfo& pack : info.packs) {
    if (packName(pack.number) == name) return pack.checksum;
  }
  return "";
}

}  // namespace

std::size_t defaultOpenFiles() {
  constexpr rlim_t kShare = 8;
  constexpr rlim_t kLeast = 8;
  constexpr rlim_t kMost = 256;
  struct rlimit limit {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return kLeast;
  return static_cast<std::size_t>(std::clamp(limit.rlim_cur / kShare, kLeast, kMost));
}

ContentFiles::ContentFiles(std::shared_ptr<const OpenFolder> folder, bool checks,
                           std::size_t maxOpenFiles)
    : folder_(std::move(folder)),
      checks_(checks),
      maxOpenFiles_(maxOpenFiles > 0 ? maxOpenFiles : defaultOpenFiles()),
      cache_(std::make_shared<parquet::RowGroupCache>()) {}

void ContentFiles::describe(std::shared_ptr<const RecordingInfo> info, bool isLive) {
  if (!isLive || !isLive_) {
    open_.clear();
    byKey_.clear();
    livePacks_.reset();
  }
  info_ = std::move(info);
  isLive_ = isLive;
  arePacksKnown_ = false;
  replacement_.reset();
}

const FileInfo& ContentFiles::fileInfo(int storageId) const {
  // Mostly no number is left out.
  const std::vector<FileInfo>& files = info_->files;
  const std::int64_t guess = files.empty() ? -1 : std::int64_t{storageId} - files.front().storageId;
  if (guess >= 0 && guess < static_cast<std::int64_t>(files.size()) &&
      files[static_cast<std::size_t>(guess)].storageId == storageId) {
    return files[static_cast<std::size_t>(guess)];
  }
  const auto found =
      std::lower_bound(info_->files.begin(), info_->files.end(), storageId,
                       [](const FileInfo& file, int id) { return file.storageId < id; });
  if (found == info_->files.end() || found->storageId != storageId) {
    refuse(storagePath(folder_->path(), storageId), "is not listed");
  }
  return *found;
}

ContentFiles::OpenFile* ContentFiles::find(std::int64_t key) {
  const auto known = byKey_.find(key);
  if (known == byKey_.end()) return nullptr;
  open_.splice(open_.begin(), open_, known->second);
  return &open_.front();
}

// Closes what was used least recently while there are too many open files, here or in the process.
ContentFiles::OpenFile& ContentFiles::keep(std::int64_t key) {
  constexpr std::size_t kLeast = 16;
  while (open_.size() >= maxOpenFiles_ || (open_.size() >= kLeast && !limits_.mayOpenMore())) {
    closeLeastRecentlyUsed();
  }
  OpenFile& file = open_.emplace_front();
  file.key = key;
  byKey_[key] = open_.begin();
  return file;
}

void ContentFiles::closeLeastRecentlyUsed() {
  byKey_.erase(open_.back().key);
  open_.pop_back();
}

std::shared_ptr<parquet::ContentReader> ContentFiles::open(int storageId, const ContentUse& use) {
  auto content = open(storageId);
  requireUse(*content, use);
  return content;
}

void ContentFiles::requireUse(const parquet::ContentReader& content, const ContentUse& use) {
  const SignalInfo& signal = use.signal;
  const std::string fault = columnFault(*content.columns(), use.isTime ? Scalar : signal.category,
                                        use.isTime ? Double : signal.dataType);
  if (fault.empty()) return;
  throw DamagedError(fmt::format("{}: signal {} \"{}\": {}: its rows cannot be read",
                                 content.file().path().string(), signal.signalId, signal.name,
                                 fault));
}

std::shared_ptr<parquet::ContentReader> ContentFiles::open(int storageId) {
  const FileInfo& info = fileInfo(storageId);
  return readingContent(info.rowCount, nullptr, [&] {
    if (info.pack) {
      return std::make_shared<parquet::ContentReader>(openPack(*info.pack), storageId,
                                                      info.firstRow, info.rowCount);
    }
    if (isLive_) return openLive(info);
    if (const OpenFile* known = find(keyOfContent(storageId))) return known->content;
    auto content = openFile(info);
    keep(keyOfContent(storageId)).content = content;
    return content;
  });
}

bool ContentFiles::extend(parquet::ContentReader& content, const FileInfo& info) {
  if (content.rows() >= info.rowCount) return true;
  content.grow(info.rowCount);
  if (content.ownRows() >= info.rowCount) {
    content.setRuns(info.storageId, {});
    return true;
  }
  // Those who look at an earlier flush may still need the runs that are there.
  auto runs = livePacks().runsOf(info.storageId, content.ownRows());
  if (endOf(runs) > content.rows()) content.setRuns(info.storageId, std::move(runs));
  return content.rows() >= info.rowCount;
}

// A content may have got a file, and a pack another that replaces it, since they were looked at.
std::shared_ptr<parquet::ContentReader> ContentFiles::openLive(const FileInfo& info) {
  if (OpenFile* known = find(keyOfContent(info.storageId))) {
    if (known->content->rows() >= info.rowCount || extend(*known->content, info)) {
      return known->content;
    }
    byKey_.erase(known->key);
    open_.pop_front();
  }
  std::shared_ptr<parquet::ContentReader> content = openLiveFile(info);
  if (content->rows() < info.rowCount) {
    arePacksKnown_ = false;
    content = openLiveFile(info);
  }
  keep(keyOfContent(info.storageId)).content = content;
  return content;
}

std::shared_ptr<parquet::ContentReader> ContentFiles::openLiveFile(const FileInfo& info) {
  auto runs = livePacks().runsOf(info.storageId, 0);
  if (runs.empty() || folder_->hasStored(nameOf(info))) {
    try {
      auto content = openFile(info);
      extend(*content, info);
      return content;
    } catch (const std::system_error&) {
      throw;
    } catch (const std::runtime_error&) {
      // The file is being written, or its writer ended before it was whole.
      if (runs.empty() || endOf(runs) < info.rowCount) throw;
    }
  }
  auto content = std::make_shared<parquet::ContentReader>(runs.front().pack, info.storageId, 0, 0);
  content->setRuns(info.storageId, std::move(runs));
  return content;
}

LivePacks& ContentFiles::livePacks() {
  if (!livePacks_) {
    const auto checks = checks_ ? parquet::BatchChecks::yes : parquet::BatchChecks::no;
    livePacks_ = std::make_unique<LivePacks>(
        folder_, LivePacks::Options{parquet::BatchChecks::no, checks}, cache_);
  }
  if (!arePacksKnown_) livePacks_->refresh();
  arePacksKnown_ = true;
  return *livePacks_;
}

std::string ContentFiles::nameOf(const FileInfo& info) const {
  return isLive_ ? nameOfLiveFile(*folder_, info.storageId) : fileName(*info_, info);
}

void ContentFiles::requireFile(const FileInfo& info) const {
  const std::string name = nameOf(info);
  const std::uint64_t expected = info.pack ? packInfo(*info.pack).size : info.size;
  try {
    const std::uint64_t size = folder_->sizeOfStored(name);
    if (size != expected) refuseSize(folder_->path() / kStorageFolder / name, size, expected);
  } catch (const std::system_error& error) {
    failToFind(name, error);
  }
}

void ContentFiles::failToFind(const std::string& name, const std::system_error& error) const {
  const std::filesystem::path path = folder_->path() / kStorageFolder / name;
  const auto& code = error.code();
  if (code == std::errc::no_such_file_or_directory || code == std::errc::not_a_directory) {
    refuse(path,
           isLive_ ? "missing: refresh() tells whether a later flush replaced it" : "missing");
  }
  if (code == std::errc::is_a_directory || code == std::errc::not_supported) {
    refuse(path, "is no regular file, or a symbolic link that may not be followed");
  }
  throw error;
}

std::shared_ptr<const DiskFile> ContentFiles::openDisk(const std::string& name) {
  for (;;) {
    if (replacement_) requireKept(name);
    try {
      return folder_->openStored(name);
    } catch (const std::system_error& error) {
      const bool isMissing = error.code() == std::errc::no_such_file_or_directory;
      if (isMissing && followReplaced()) continue;
      // The rest of the process may use more descriptors than are left for it here.
      if (error.code() != std::errc::too_many_files_open || open_.empty()) failToFind(name, error);
    }
    closeLeastRecentlyUsed();
  }
}

bool ContentFiles::followReplaced() {
  if (isLive_ || !folder_->isReplaced()) return false;
  auto now = std::make_shared<const OpenFolder>(folder_->path(), folder_->links());
  replacement_ = std::make_unique<const RecordingInfo>(describeRecording(*now));
  folder_ = std::move(now);
  return true;
}

void ContentFiles::requireKept(const std::string& name) const {
  const std::string checksum = checksumOf(*info_, name);
  if (!checksum.empty() && checksumOf(*replacement_, name) == checksum) return;
  throw std::system_error(
      ESTALE, std::generic_category(),
      fmt::format("{}: was replaced by another recording while it was read, open it again",
                  folder_->path().string()));
}

template <typename Info>
std::shared_ptr<const DiskFile> ContentFiles::openSized(const std::string& name, const Info& info) {
  auto disk = openDisk(name);
  const std::uint64_t size = disk->size();
  if (size != info.size) refuseSize(disk->path(), size, info.size);
  return disk;
}

template <typename Info>
std::shared_ptr<const ByteSource> ContentFiles::checked(std::shared_ptr<const DiskFile> disk,
                                                        const Info& info) const {
  if (!checks_) return disk;
  return std::make_shared<parquet::CheckedFile>(std::move(disk),
                                                parquet::FileChecksums{info.checksum, info.blocks});
}

// The batches of a growing file have checksums of their own: damage in one place leaves the others
// readable.
std::shared_ptr<parquet::InputFile> ContentFiles::openInput(const FileInfo& info) {
  const std::string name = nameOf(info);
  const auto checks = checks_ ? parquet::BatchChecks::yes : parquet::BatchChecks::no;
  if (isLive_) return parquet::openAnyFile(openDisk(name), info.rowCount, checks);
  const auto disk = openSized(name, info);
  const bool mayHaveBatches = checks_ && info.size > parquet::CheckedFile::kBlockBytes;
  if (mayHaveBatches && info.blocks.empty() && parquet::isGrowingFile(*disk)) {
    return parquet::openGrowingFile(disk, info.rowCount, checks);
  }
  try {
    return std::make_shared<parquet::InputFile>(checked(disk, info));
  } catch (const parquet::DamagedBytes&) {
    if (!mayHaveBatches || !parquet::isGrowingFile(*disk)) throw;
    return parquet::openGrowingFile(disk, info.rowCount, checks);
  }
}

std::shared_ptr<parquet::ContentReader> ContentFiles::openFile(const FileInfo& info) {
  auto file = openInput(info);
  if (!isLive_ && file->rows() != info.rowCount) {
    refuse(file->path(), fmt::format("holds {} rows, expected {}", file->rows(), info.rowCount));
  }
  return std::make_shared<parquet::ContentReader>(std::move(file), cache_);
}

const PackInfo& ContentFiles::packInfo(int number) const {
  const auto listed =
      std::find_if(info_->packs.begin(), info_->packs.end(),
                   [number](const PackInfo& pack) { return pack.number == number; });
  if (listed == info_->packs.end()) {
    refuse(packPath(folder_->path(), number), "is not listed");
  }
  return *listed;
}

std::shared_ptr<parquet::ContentFile> ContentFiles::openPack(int number) {
  if (const OpenFile* known = find(keyOfPack(number))) return known->pack;
  const PackInfo& listed = packInfo(number);
  auto file =
      std::make_shared<parquet::InputFile>(checked(openSized(packName(number), listed), listed));
  if (file->rows() != listed.rowCount) {
    refuse(packPath(folder_->path(), number),
           fmt::format("holds {} rows, expected {}", file->rows(), listed.rowCount));
  }
  auto pack = std::make_shared<parquet::ContentFile>(std::move(file),
                                                     parquet::ContentFile::Kind::pack, cache_);
  keep(keyOfPack(number)).pack = pack;
  return pack;
}

}  // namespace kyr::recording
