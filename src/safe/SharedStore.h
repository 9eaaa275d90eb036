#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

#include "kyr/parquet/SafeStorage.h"
#include "kyr/platform/Path.h"
#include "safe/ContentTree.h"
#include "safe/FileLayouts.h"
#include "safe/OpenFiles.h"
#include "safe/RecentTimes.h"

namespace kyr::parquet {

class Content;
class GrowingRows;
class PackFile;

/// The rows of a content in a pack file, where they follow each other.
struct PackRange {
  std::shared_ptr<PackFile> pack;
  std::uint64_t first = 0;
  std::uint64_t count = 0;
};

/// A complete Parquet file that a pool reads where it lies, and never changes or deletes.
struct BorrowedFile {
  std::filesystem::path path;
  std::shared_ptr<const DiskFile> file;  ///< null for a file that is opened when it is needed
};

/// What the contents of a safe pool share: the directory with its ids, the layouts of files, the
/// descriptors, and when files are synced and deleted. It also finds the contents themselves.
class SharedStore {
 public:
  /// What a content is over that is taken over by its id: nothing stands for the file of that id.
  using Offer = std::variant<std::monostate, PackRange, BorrowedFile>;

  /// \param nextId  counts the ids of all stores of a pool; no file of the directory has this id or
  ///        a larger one
  /// \throws std::invalid_argument for batches without rows or bytes
  SharedStore(Path directory, const SafeStorage& options, std::shared_ptr<int> nextId);
  /// Removes the directory if that was asked for and nothing is in it.
  ~SharedStore();
  SharedStore(const SharedStore&) = delete;
  SharedStore& operator=(const SharedStore&) = delete;

  const Path& directory() const { return directory_; }
  const SafeStorage& options() const { return options_; }
  std::filesystem::path fileOf(int id) const;

  /// An id that was never given before.
  /// \throws std::runtime_error if there are none left
  int newId();
  /// From now on newId() does not give this id.
  void reserve(int id);

  FileLayouts& layouts() { return layouts_; }
  ContentTree& tree() { return tree_; }
  OpenFiles& openFiles() { return openFiles_; }
  RecentTimes& recentTimes() { return recentTimes_; }

  /// The content of that id that a part has; null if there is none.
  std::shared_ptr<Content> find(int id) const;
  void add(int id, const std::weak_ptr<Content>& content) { contents_[id] = content; }
  void rename(int id, int newId);
  void remove(int id) { contents_.erase(id); }
  /// Calls \p visit with each content, which may change it and its id.
  void forEachContent(const std::function<void(Content&)>& visit) const;

  /// Offers rows of a pack, or a file that need not lie in the directory, as the content of an id.
  /// The first part that takes over the id takes the offer; without one, the content is over the
  /// file of that id in the directory, which is then deleted with it.
  ///
  /// A file that is offered by its path is opened when it is first needed, and may be closed and
  /// opened again: it must keep its name and must not change. One that is offered open stays open
  /// as long as the content is over it, whatever becomes of its name.
  void offerPacked(int id, PackRange rows) { offers_[id] = std::move(rows); }
  void offerStored(int id, std::filesystem::path path) {
    offers_[id] = BorrowedFile{std::move(path), nullptr};
  }
  void offerStored(int id, std::shared_ptr<const DiskFile> file) {
    offers_[id] = BorrowedFile{file->path(), file};
  }
  Offer takeOffer(int id);
  /// Forgets the offers that nobody took.
  void dropOffers() { offers_.clear(); }

  /// Whether a finished content of so many bytes may stay in memory.
  bool mayStayInMemory(std::size_t bytes) const {
    return bytes < options_.holdBelow && bytesInMemory_ + bytes <= options_.holdTotal;
  }
  /// Counts bytes of finished contents that are in memory only.
  void addToMemory(std::size_t bytes) { bytesInMemory_ += bytes; }
  void takeFromMemory(std::size_t bytes) { bytesInMemory_ -= bytes; }
  bool hasContentsInMemory() const { return bytesInMemory_ > 0; }

  /// Notes a new name in the directory.
  void noteNewFile() { hasNewFiles_ = true; }
  /// Notes a batch that was written.
  void noteBatch(GrowingRows& rows);
  void forgetBatches(GrowingRows& rows) { unsynced_.erase(&rows); }
  /// Waits until all that was noted is on the disk.
  void sync();
  /// Does so if the options say that it is time to.
  void syncIfDue();

  /// The directory was made for this store alone. It is removed with the store if it is empty then.
  void ownDirectory() { ownsDirectory_ = true; }

  void removeFile(int id) noexcept;
  void noteFlush() noexcept;
  /// From now on no file is deleted.
  void keepAllFiles() { keepsAllFiles_ = true; }

 private:
  Path directory_;
  SafeStorage options_;
  std::shared_ptr<int> nextId_;
  FileLayouts layouts_;
  OpenFiles openFiles_;
  RecentTimes recentTimes_;
  ContentTree tree_;
  std::unordered_map<int, std::weak_ptr<Content>> contents_;
  std::unordered_map<int, Offer> offers_;
  std::size_t bytesInMemory_ = 0;

  bool ownsDirectory_ = false;
  bool keepsAllFiles_ = false;
  std::vector<int> unused_;        // files without a content since the last flush
  std::vector<int> unusedBefore_;  // those between the last two flushes

  std::unordered_set<GrowingRows*> unsynced_;  // unless files are never synced
  bool hasNewFiles_ = false;
  std::chrono::steady_clock::time_point lastSync_ = std::chrono::steady_clock::now();
};

}  // namespace kyr::parquet
