#include "cli/PendingOutput.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "cli/Errors.h"
#include "cli/Files.h"
#include "cli/Interrupt.h"
#include "kyr/platform/FileSystem.h"

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

void flushToDisk(const fs::path& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) throw systemError(path.string(), "opened", errno);
  const int error = ::fsync(descriptor) == 0 ? 0 : errno;
  ::close(descriptor);
  if (error != 0) throw systemError(path.string(), "flushed to disk", error);
}

void flushTree(const fs::path& path) {
  if (fs::is_directory(path)) {
    for (const auto& entry : fs::directory_iterator(path)) {
      stopIfInterrupted();
      flushTree(entry.path());
    }
  }
  flushToDisk(path);
}

bool holdsOnlyPartitions(const fs::path& folder) {
  constexpr std::string_view kPrefix = "signal=";
  return std::all_of(
      fs::directory_iterator(folder), fs::directory_iterator(), [&](const auto& entry) {
        return entry.path().filename().string().compare(0, kPrefix.size(), kPrefix) == 0 &&
               entry.is_directory();
      });
}

// Leaves room for the ending of the temporary name.
std::string shortened(std::string name) {
  constexpr std::size_t kLongest = 220;
  const auto isInsideCharacter = [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
  };
  if (name.size() <= kLongest) return name;
  std::size_t end = kLongest;
  while (end > 0 && isInsideCharacter(name[end])) --end;
  return name.substr(0, end);
}

}  // namespace

PendingOutput::PendingOutput(std::string name, Kind kind, bool replaces)
    : name_(std::move(name)), kind_(kind), replaces_(replaces) {
  target_ = wholePath(name_);
  checkTarget();
  const auto stem = Path::fromFilesystem(shortened(target_.filename().string())).text();
  pending_ = fileSystem::uniqueName(Path::fromFilesystem(target_.parent_path()),
                                    stem + u".exporting-", u"")
                 .toFilesystem();
  unfinished_.emplace(kind_ == Kind::file ? pending_.string() : "");
  make();
}

void PendingOutput::make() {
  // A file that gets the mode of the one it replaces must not be open to others before.
  const mode_t fileMode = replaces_ && fs::exists(target_) ? 0600 : 0666;
  constexpr mode_t kFolderMode = 0777;
  if (kind_ == Kind::folder) {
    if (::mkdir(pending_.c_str(), kFolderMode) != 0) throw systemError(name_, "made", errno);
    return;
  }
  const int descriptor =
      ::open(pending_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, fileMode);
  if (descriptor < 0) throw systemError(name_, "made", errno);
  ::close(descriptor);
}

PendingOutput::~PendingOutput() {
  std::error_code ignored;
  if (!pending_.empty()) fs::remove_all(pending_, ignored);
}

void PendingOutput::checkTarget() const {
  const fs::file_status status = fs::symlink_status(target_);
  if (!fs::exists(status)) {
    if (fs::is_directory(target_.parent_path())) return;
    throw std::runtime_error(
        fmt::format("{} cannot be made: {} is no folder", name_, target_.parent_path().string()));
  }
  if (kind_ == Kind::file && !fs::is_regular_file(status)) {
    throw std::runtime_error(name_ + " exists and is no file: choose another name");
  }
  if (kind_ == Kind::folder && !(fs::is_directory(status) && holdsOnlyPartitions(target_))) {
    throw std::runtime_error(name_ + " exists and is no folder of partitions: choose another name");
  }
  if (!replaces_) {
    throw std::runtime_error(name_ + " exists: choose another name, or replace it with --force");
  }
}

void PendingOutput::publish() {
  flushTree(pending_);
  stopIfInterrupted();
  if (replaces_) {
    replace();
  } else {
    publishNew();
  }
  flushToDisk(target_.parent_path());
}

void PendingOutput::publishNew() {
  constexpr unsigned int kNoReplace = RENAME_NOREPLACE;
  if (::renameat2(AT_FDCWD, pending_.c_str(), AT_FDCWD, target_.c_str(), kNoReplace) != 0) {
    if (errno == EEXIST) checkTarget();
    if (errno != EINVAL && errno != ENOSYS) throw systemError(name_, "made", errno);
    // The file system cannot do that in one step. A rename replaces no folder that holds something,
    // and a link replaces nothing at all.
    const bool made = kind_ == Kind::folder ? std::rename(pending_.c_str(), target_.c_str()) == 0
                                            : ::link(pending_.c_str(), target_.c_str()) == 0;
    if (!made) throw systemError(name_, "made", errno);
    if (kind_ == Kind::file) return;  // the destructor removes the temporary name
  }
  pending_.clear();
}

// A new content does not change who may read the file.
void PendingOutput::keepMode() const {
  constexpr mode_t kModeBits = 07777;
  struct stat replaced {};
  if (::stat(target_.c_str(), &replaced) != 0) return;
  if (::chmod(pending_.c_str(), replaced.st_mode & kModeBits) != 0)
    throw systemError(name_, "replaced", errno);
}

void PendingOutput::replace() {
  checkTarget();
  if (kind_ == Kind::file || !fs::exists(target_)) {
    keepMode();
    if (std::rename(pending_.c_str(), target_.c_str()) != 0)
      throw systemError(name_, "replaced", errno);
    pending_.clear();
    return;
  }
  // The older folder gets the temporary name, and the destructor removes it.
  constexpr unsigned int kExchange = RENAME_EXCHANGE;
  if (::renameat2(AT_FDCWD, pending_.c_str(), AT_FDCWD, target_.c_str(), kExchange) == 0) return;
  if (errno != EINVAL && errno != ENOSYS) throw systemError(name_, "replaced", errno);
  const fs::path old = pending_.string() + ".old";
  if (std::rename(target_.c_str(), old.c_str()) != 0) throw systemError(name_, "replaced", errno);
  if (std::rename(pending_.c_str(), target_.c_str()) != 0) {
    const int error = errno;
    std::rename(old.c_str(), target_.c_str());
    throw systemError(name_, "replaced", error);
  }
  pending_ = old;
}

}  // namespace kyr::tool
