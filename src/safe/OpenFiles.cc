#include "safe/OpenFiles.h"

#include <sys/resource.h>

#include <algorithm>
#include <system_error>
#include <utility>

namespace kyr::parquet {

namespace {

constexpr std::size_t kMost = 4096;
constexpr std::size_t kLeast = 16;

// How many descriptors the process may have.
std::size_t descriptorLimit() {
  struct rlimit limit {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kMost * 8;
  return static_cast<std::size_t>(limit.rlim_cur);
}

}  // namespace

std::atomic<std::size_t> OpenFiles::finished_{0};
std::atomic<std::size_t> OpenFiles::growing_{0};

OpenFiles::OpenFiles()
    : maxFinished_(std::min(descriptorLimit() / 4, kMost)),
      maxGrowing_(std::min(descriptorLimit() / 8, kMost)) {}

void OpenFiles::Handle::close() {
  if (files_ != nullptr) files_->open_.erase(place_);
  files_ = nullptr;
  file_.reset();
  count_.reset();
}

void OpenFiles::open(Handle& handle, const std::filesystem::path& path) {
  while (open_.size() >= kLeast && finished_ >= maxFinished_) closeLeastRecentlyUsed();
  std::shared_ptr<FinishedFile> file;
  while (!file) {
    try {
      file = std::make_shared<FinishedFile>(path);
    } catch (const std::system_error& error) {
      // The rest of the process may use more descriptors than are left for it here.
      if (error.code() != std::errc::too_many_files_open || open_.empty()) throw;
      closeLeastRecentlyUsed();
    }
  }
  handle.count_.emplace(finished_);
  handle.place_ = open_.insert(open_.begin(), &handle);
  handle.file_ = std::move(file);
  handle.files_ = this;
}

void OpenFiles::use(Handle& handle) {
  if (handle.files_ != nullptr) open_.splice(open_.begin(), open_, handle.place_);
}

}  // namespace kyr::parquet
