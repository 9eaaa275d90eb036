#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "kyr/parquet/SafeStorage.h"
#include "kyr/platform/Path.h"
#include "safe/ContentTree.h"
#include "safe/FileLayouts.h"
#include "safe/OpenFiles.h"
#include "safe/RecentTimes.h"
#include "safe/SmallMemory.h"
#include "schema/ContentSummary.h"

namespace kyr::parquet {

class Content;
class GrowingPacks;
class GrowingRows;
class ContentReader;

/// Who lends contents to a pool: rows of a saved recording, which the pool reads where they lie and
/// never changes or deletes.
class Lender {
 public:
  virtual ~Lender() = default;
  Lender(const Lender&) = delete;
  Lender& operator=(const Lender&) = delete;

  /// The number of rows of the content of that id; empty if it is not lent.
  virtual std::optional<std::uint64_t> rowsOf(int id) const = 0;
  /// What is known of the content, as far as the recording tells it.
  virtual ContentSummary summaryOf(int id) const = 0;
  /// Opens the content, or returns it again if it is still open.
  virtual std::shared_ptr<ContentReader> open(int id) = 0;

 protected:
  Lender() = default;
};

/// What the contents of a safe pool share: the directory with its ids, the layouts of files, the
/// descriptors, and when files are synced and deleted. It also finds the contents themselves.
class SharedStore {
 public:
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
  /// Sets what follows the id in the names of files, before there are any; nothing unless told.
  void setExtension(std::string extension) { extension_ = std::move(extension); }

  /// An id that was never given before.
  /// \throws std::runtime_error if there are none left
  /// \throws std::logic_error as requireOpen()
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

  /// Until endOffers(), parts that take over an id get what is lent of that id. Without, the
  /// content is over the file of that id in the directory, which is then deleted with it.
  void offer(std::shared_ptr<Lender> lender) {
    lender_ = std::move(lender);
    offers_ = true;
  }
  void endOffers() { offers_ = false; }
  /// The rows of what is offered; empty for nothing.
  std::optional<std::uint64_t> rowsOffered(int id) const {
    return offers_ ? lender_->rowsOf(id) : std::nullopt;
  }
  /// Who lent what was offered; null for nobody.
  const std::shared_ptr<Lender>& lender() const { return lender_; }

  /// Whether a finished content of so many bytes may stay in memory.
  bool mayStayInMemory(std::size_t bytes) const {
    return keepsFinished_ ||
           (bytes < options_.holdBelow && bytesInMemory_ + bytes <= options_.holdTotal);
  }
  /// Counts bytes of finished contents that are in memory only.
  void addToMemory(std::size_t bytes) { bytesInMemory_ += bytes; }
  void takeFromMemory(std::size_t bytes) { bytesInMemory_ -= bytes; }
  bool hasContentsInMemory() const { return bytesInMemory_ > 0; }
  SmallMemory& smallMemory() { return smallMemory_; }

  /// Lets the few rows that contents get between two flushes go to packs.
  void usePacks();
  /// The packs; null if there are none.
  GrowingPacks* packs() const { return packs_.get(); }
  /// What the next flush of the pool tells to the packs; see GrowingPacks::write().
  void setFlushNote(std::function<std::string()> note) { flushNote_ = std::move(note); }
  const std::function<std::string()>& flushNote() const { return flushNote_; }
  /// Finished contents that have no file yet stay in memory, whatever their size.
  void keepFinishedInMemory() { keepsFinished_ = true; }

  /// Called before so many bytes of rows come to memory that more rows will follow. If that is more
  /// than the options allow, the contents with the most rows are written, and leave memory.
  void makeRoomFor(std::size_t bytes) {
    if (bytesGrowing_ + bytes > options_.memoryTotal) spill();
  }
  void addToGrowing(std::size_t bytes) { bytesGrowing_ += bytes; }
  void takeFromGrowing(std::size_t bytes) { bytesGrowing_ -= bytes; }

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
  /// The directory is to be made for this store alone when the first file needs it.
  void ownDirectoryOnceNeeded() { ownsDirectory_ = makesDirectory_ = true; }
  /// Makes it.
  /// \return whether it was due
  bool makeDirectory();

  void removeFile(int id) noexcept;
  /// Removes a file at the second flush from now on.
  void removeLater(std::filesystem::path path) { unused_.push_back(std::move(path)); }
  void noteFlush() noexcept;
  /// Notes that all rows there are now were acknowledged, even if the flush fails after that.
  void noteAcknowledged() { ++acknowledged_; }
  /// How often that was called.
  std::uint64_t timesAcknowledged() const { return acknowledged_; }
  /// From now on no file is deleted.
  void keepAllFiles() { keepsAllFiles_ = true; }
  bool keepsAllFiles() const { return keepsAllFiles_; }
  /// Notes that the directory belongs to a recording that is closed. From now on no file is made,
  /// written or deleted.
  void close() { isClosed_ = keepsAllFiles_ = true; }
  bool isClosed() const { return isClosed_; }
  /// \throws std::logic_error if the store is closed
  void requireOpen() const {
    if (isClosed_) refuseClosed();
  }

 private:
  void spill();
  [[noreturn]] void refuseClosed() const;

  Path directory_;
  std::string extension_;
  SafeStorage options_;
  std::shared_ptr<int> nextId_;
  FileLayouts layouts_;
  OpenFiles openFiles_;
  RecentTimes recentTimes_;
  ContentTree tree_;
  std::unordered_map<int, std::weak_ptr<Content>> contents_;
  std::shared_ptr<Lender> lender_;
  bool offers_ = false;
  SmallMemory smallMemory_;
  std::size_t bytesInMemory_ = 0;
  std::size_t bytesGrowing_ = 0;
  bool keepsFinished_ = false;
  std::unique_ptr<GrowingPacks> packs_;
  std::function<std::string()> flushNote_;

  bool ownsDirectory_ = false;
  bool makesDirectory_ = false;
  bool keepsAllFiles_ = false;
  bool isClosed_ = false;
  std::uint64_t acknowledged_ = 0;
  std::vector<std::filesystem::path> unused_;        // nobody needs them since the last flush
  std::vector<std::filesystem::path> unusedBefore_;  // those between the last two flushes

  std::unordered_set<GrowingRows*> unsynced_;  // unless files are never synced
  bool hasNewFiles_ = false;
  std::chrono::steady_clock::time_point lastSync_ = std::chrono::steady_clock::now();
};

}  // namespace kyr::parquet
