#include "platform/FileState.h"

#include <sys/stat.h>

#include <chrono>

namespace kyr {

namespace {

constexpr std::int64_t kPerSecond = 1'000'000'000;

// Several times the longest tick of a kernel's clock, which is 10 ms. File systems that store whole
// seconds store every second one at the least.
constexpr std::int64_t kTick = kPerSecond / 20;
constexpr std::int64_t kTickOfSeconds = 3 * kPerSecond;

std::int64_t nanoseconds(const struct timespec& time) {
  return time.tv_sec * kPerSecond + time.tv_nsec;
}

}  // namespace

FileState::FileState(const struct stat& status)
    : device(status.st_dev),
      inode(status.st_ino),
      size(static_cast<std::uint64_t>(status.st_size)),
      modified(nanoseconds(status.st_mtim)),
      changed(nanoseconds(status.st_ctim)) {}

std::optional<FileState> FileState::ofName(const std::filesystem::path& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return FileState(status);
}

bool FileState::showsEveryChangeSince(std::int64_t now) const {
  const bool hasWholeSeconds = modified % kPerSecond == 0 || changed % kPerSecond == 0;
  return changed < now - (hasWholeSeconds ? kTickOfSeconds : kTick);
}

std::int64_t nowByTheClock() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count();
}

}  // namespace kyr
