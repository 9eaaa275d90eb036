#pragma once

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <list>
#include <memory>
#include <optional>

#include "safe/FinishedFile.h"

namespace kyr::parquet {

/// Counts one open descriptor of the process as long as it lives.
class DescriptorCount {
 public:
  explicit DescriptorCount(std::atomic<std::size_t>& count) : count_(count) { ++count_; }
  ~DescriptorCount() { --count_; }
  DescriptorCount(const DescriptorCount&) = delete;
  DescriptorCount& operator=(const DescriptorCount&) = delete;

 private:
  std::atomic<std::size_t>& count_;
};

/// The finished files that a store keeps open, and how many descriptors it may use.
///
/// The safe pools of a process together keep at most a quarter of the descriptors that it may have
/// (RLIMIT_NOFILE when the store is made) for finished files, and an eighth for files that grow,
/// and no more than 4,096 of either. A store that needs one more closes the finished file that it
/// has not used for longest, but keeps 16 open in any case. Files that grow are closed between two
/// batches while there are too many of them.
class OpenFiles {
 public:
  /// A finished file that may be open.
  class Handle {
   public:
    Handle() = default;
    ~Handle() { close(); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    const std::shared_ptr<FinishedFile>& file() const { return file_; }
    void close();

   private:
    friend class OpenFiles;

    OpenFiles* files_ = nullptr;  // in whose list the handle is; null for none
    std::list<Handle*>::iterator place_;
    std::shared_ptr<FinishedFile> file_;
    std::optional<DescriptorCount> count_;
  };

  OpenFiles();
  OpenFiles(const OpenFiles&) = delete;
  OpenFiles& operator=(const OpenFiles&) = delete;

  /// Opens the file of that name for a handle that is closed. It is closed again when others need
  /// the descriptor.
  /// \throws std::system_error naming the file if it cannot be opened
  void open(Handle& handle, const std::filesystem::path& path);
  /// Notes that the file of an open handle is being used.
  void use(Handle& handle);

  /// The descriptor of a finished file that somebody else keeps open.
  static DescriptorCount countFinished() { return DescriptorCount(finished_); }
  /// Whether one more finished file may stay open.
  bool mayOpenMore() const { return finished_ < maxFinished_; }
  /// The descriptor of a file that grows.
  static DescriptorCount countGrowing() { return DescriptorCount(growing_); }
  /// Whether the files that grow may all stay open between two batches.
  bool mayGrowingStayOpen() const { return growing_ <= maxGrowing_; }

 private:
  void closeLeastRecentlyUsed() { open_.back()->close(); }

  // The counts are those of all pools of the process, which different threads may use.
  static std::atomic<std::size_t> finished_;
  static std::atomic<std::size_t> growing_;

  std::size_t maxFinished_;
  std::size_t maxGrowing_;
  std::list<Handle*> open_;  // the one used last first
};

}  // namespace kyr::parquet
