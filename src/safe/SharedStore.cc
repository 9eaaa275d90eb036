#include "safe/SharedStore.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "files/ContentReader.h"
#include "platform/DiskFile.h"
#include "platform/Parallel.h"
#include "safe/Content.h"
#include "safe/GrowingPacks.h"
#include "safe/GrowingRows.h"

namespace kyr::parquet {

SharedStore::SharedStore(Path directory, const SafeStorage& options, std::shared_ptr<int> nextId)
    : directory_(std::move(directory)),
      options_(options),
      nextId_(std::move(nextId)),
      layouts_(options.encodings) {
  if (options.batchRows == 0 || options.batchBytes == 0) {
    throw std::invalid_argument("a batch without rows or bytes: both must be positive");
  }
}

SharedStore::~SharedStore() {
  if (!ownsDirectory_) return;
  std::error_code ignored;
  std::filesystem::remove(directory_.toFilesystem(), ignored);
}

std::filesystem::path SharedStore::fileOf(int id) const {
  return directory_.toFilesystem() / (std::to_string(id) + extension_);
}

bool SharedStore::makeDirectory() {
  const std::filesystem::path directory = directory_.toFilesystem();
  if (!makesDirectory_ || !std::filesystem::create_directory(directory)) return false;
  std::filesystem::permissions(directory, std::filesystem::perms::owner_all);
  makesDirectory_ = false;
  return true;
}

void SharedStore::refuseClosed() const {
  throw std::logic_error(directory_.toNarrow() +
                         ": its recording is closed, so nothing can be stored any more");
}

int SharedStore::newId() {
  requireOpen();
  if (*nextId_ == std::numeric_limits<int>::max()) {
    throw std::runtime_error(directory_.toNarrow() + ": there are no storage ids left");
  }
  return (*nextId_)++;
}

void SharedStore::reserve(int id) {
  if (id < std::numeric_limits<int>::max()) *nextId_ = std::max(*nextId_, id + 1);
}

std::shared_ptr<Content> SharedStore::find(int id) const {
  const auto found = contents_.find(id);
  return found == contents_.end() ? nullptr : found->second.lock();
}

void SharedStore::rename(int id, int newId) {
  auto node = contents_.extract(id);
  if (node.empty()) return;
  node.key() = newId;
  contents_.insert(std::move(node));
}

void SharedStore::forEachContent(const std::function<void(Content&)>& visit) const {
  std::vector<std::shared_ptr<Content>> contents;
  contents.reserve(contents_.size());
  for (const auto& [id, weak] : contents_) {
    if (auto content = weak.lock()) contents.push_back(std::move(content));
  }
  for (const auto& content : contents) visit(*content);
}

void SharedStore::usePacks() { packs_ = std::make_unique<GrowingPacks>(*this); }

// So much of the memory becomes free that this is rare. What goes to packs is written at once, so
// that nearly all goes: the longer each content's run is, the fewer there are.
void SharedStore::spill() {
  std::vector<std::pair<std::size_t, std::shared_ptr<Content>>> contents;
  forEachContent([&](Content& content) {
    GrowingRows* rows = content.growing();
    if (rows == nullptr || rows->memoryBytes() == 0) return;
    contents.emplace_back(rows->memoryBytes(), content.shared_from_this());
  });
  std::sort(contents.begin(), contents.end(),
            [](const auto& a, const auto& b) { return a.first > b.first; });
  const std::size_t kept = packs_ ? options_.memoryTotal / 16 : options_.memoryTotal / 2;
  std::size_t left = bytesGrowing_;
  std::vector<GrowingRows*> small;
  for (const auto& [bytes, content] : contents) {
    if (left <= kept) break;
    left -= std::min(left, bytes);
    if (content->growing()->maySpillToPack()) {
      small.push_back(content->growing());
    } else {
      content->growing()->spill();
    }
  }
  if (!packs_) return;
  packs_->spill(small);
  // More than comes, so that nothing is left in the end.
  packs_->mergeSpilled(2 * options_.memoryTotal);
}

void SharedStore::noteBatch(GrowingRows& rows) {
  if (options_.sync != SafeStorage::Sync::never) unsynced_.insert(&rows);
}

void SharedStore::syncIfDue() {
  if (options_.sync != SafeStorage::Sync::seconds) return;
  const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - lastSync_;
  if (passed.count() >= options_.syncSeconds) sync();
}

void SharedStore::sync() {
  const std::vector<GrowingRows*> files(unsynced_.begin(), unsynced_.end());
  forEachInThreads(files.size(), threadsForSyncing(files.size()),
                   [&](std::size_t i, std::size_t /*thread*/) { files[i]->sync(); });
  unsynced_.clear();
  if (packs_) packs_->sync();
  if (hasNewFiles_) syncDirectoryOf(fileOf(0));
  hasNewFiles_ = false;
  lastSync_ = std::chrono::steady_clock::now();
}

void SharedStore::removeFile(int id) noexcept {
  if (keepsAllFiles_) return;
  if (options_.keepsFiles) {
    removeLater(fileOf(id));
    return;
  }
  std::error_code ignored;
  std::filesystem::remove(fileOf(id), ignored);
}

void SharedStore::noteFlush() noexcept {
  std::error_code ignored;
  for (const auto& path : unusedBefore_) std::filesystem::remove(path, ignored);
  unusedBefore_ = std::move(unused_);
  unused_.clear();
}

}  // namespace kyr::parquet
