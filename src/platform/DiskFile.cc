#include "platform/DiskFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "platform/Parallel.h"

namespace kyr {

namespace {

constexpr mode_t kPermissions = 0666;  // the process's mask takes some away

template <typename Call>
auto retried(Call&& call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

// O_NONBLOCK changes nothing for files; without it, opening a pipe waits for the pipe's writer.
constexpr int kAlways = O_CLOEXEC | O_NONBLOCK;

int flagsOf(DiskFile::Mode mode) {
  const int create = mode == DiskFile::Mode::createNew ? O_CREAT | O_EXCL : 0;
  return kAlways | create | (mode == DiskFile::Mode::readOnly ? O_RDONLY : O_RDWR);
}

bool isLink(int folder, const char* name) {
  struct stat status {};
  return ::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
}

[[noreturn]] void failBoth(const char* what, const std::filesystem::path& one,
                           const std::filesystem::path& other, int error) {
  throw std::system_error(error, std::generic_category(),
                          fmt::format("{}: cannot {} {}", one.string(), what, other.string()));
}

// The pieces of a gathered write that are not written yet.
class Remaining {
 public:
  explicit Remaining(const std::vector<std::string_view>& pieces) {
    for (const std::string_view piece : pieces) {
      // The kernel only reads from the pieces.
      if (!piece.empty()) vectors_.push_back({const_cast<char*>(piece.data()), piece.size()});
    }
  }

  bool empty() const { return first_ == vectors_.size(); }
  const iovec* data() const { return &vectors_[first_]; }
  int count() const {
    return static_cast<int>(std::min<std::size_t>(vectors_.size() - first_, IOV_MAX));
  }

  void drop(std::size_t written) {
    while (first_ < vectors_.size() && written >= vectors_[first_].iov_len) {
      written -= vectors_[first_++].iov_len;
    }
    if (empty()) return;
    iovec& partly = vectors_[first_];
    partly.iov_base = static_cast<char*>(partly.iov_base) + written;
    partly.iov_len -= written;
  }

 private:
  std::vector<iovec> vectors_;
  std::size_t first_ = 0;
};

}  // namespace

DiskFile::DiskFile(std::filesystem::path path, Mode mode) : path_(std::move(path)), mode_(mode) {
  open(flagsOf(mode));
}

DiskFile::DiskFile(const DiskFile& folder, const std::string& name, Entry entry, Mode mode,
                   Links links)
    : path_((folder.path() / name).lexically_normal()), mode_(mode) {
  const int flags = flagsOf(mode_) | (entry == Entry::folder ? O_DIRECTORY : 0) |
                    (links == Links::refused ? O_NOFOLLOW : 0);
  const int descriptor =
      retried([&] { return ::openat(folder.descriptor(), name.c_str(), flags, kPermissions); });
  if (descriptor < 0) {
    const int error = errno;
    const bool mayBeLink = error == ELOOP || error == ENOTDIR;
    if (mayBeLink && links == Links::refused && isLink(folder.descriptor(), name.c_str())) {
      fail("follow a symbolic link", ENOTSUP);
    }
    fail(mode == Mode::createNew ? "create" : "open", error);
  }
  take(descriptor, entry == Entry::folder);
}

DiskFile::~DiskFile() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

void DiskFile::fail(const char* what, int error) const {
  throw std::system_error(error, std::generic_category(),
                          fmt::format("{}: cannot {}", path_.string(), what));
}

void DiskFile::open(int flags) const {
  const bool isNew = (flags & O_CREAT) != 0;
  const int descriptor = retried([&] { return ::open(path_.c_str(), flags, kPermissions); });
  if (descriptor < 0) fail(isNew ? "create" : "open", errno);
  take(descriptor, /*mayBeDirectory=*/true);
}

void DiskFile::take(int descriptor, bool mayBeDirectory) const {
  struct stat status {};
  int error = ::fstat(descriptor, &status) == 0 ? 0 : errno;
  const bool isDirectory = S_ISDIR(status.st_mode);
  if (error == 0 && isDirectory && !mayBeDirectory) error = EISDIR;
  if (error == 0 && !isDirectory && !S_ISREG(status.st_mode)) error = ENOTSUP;
  if (error != 0) {
    ::close(descriptor);
    fail(error == ENOTSUP ? "open a pipe or device" : "open", error);
  }
  descriptor_ = descriptor;
}

int DiskFile::descriptor() const {
  if (descriptor_ < 0 && suspended_) open(flagsOf(mode_) & ~(O_CREAT | O_EXCL));
  return descriptor_;
}

std::uint64_t DiskFile::size() const { return state().size; }

struct stat DiskFile::status() const {
  struct stat status {};
  if (::fstat(descriptor(), &status) != 0) fail("tell the size", errno);
  return status;
}

FileState DiskFile::state() const { return FileState(status()); }

void DiskFile::requireName() const {
  if (status().st_nlink == 0) throw std::runtime_error(path_.string() + ": was deleted by others");
}

bool DiskFile::isFolder() const { return S_ISDIR(status().st_mode); }

bool DiskFile::hasOtherNames() const { return status().st_nlink > 1; }

void DiskFile::writeAt(std::uint64_t offset, const std::vector<std::string_view>& pieces) {
  Remaining remaining(pieces);
  while (!remaining.empty()) {
    const ssize_t written = retried([&] {
      return ::pwritev(descriptor(), remaining.data(), remaining.count(),
                       static_cast<off_t>(offset));
    });
    if (written < 0) fail("write", errno);
    if (written == 0) fail("write", EIO);
    remaining.drop(static_cast<std::size_t>(written));
    offset += static_cast<std::uint64_t>(written);
  }
}

std::size_t DiskFile::readAt(std::uint64_t offset, void* out, std::size_t size) const {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = retried([&] {
      return ::pread(descriptor(), static_cast<char*>(out) + done, size - done,
                     static_cast<off_t>(offset + done));
    });
    if (got < 0) fail("read", errno);
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

void DiskFile::truncate(std::uint64_t size) {
  descriptor();
  if (!tryTruncate(size)) fail("cut", errno);
}

bool DiskFile::tryTruncate(std::uint64_t size) noexcept {
  return retried([&] { return ::ftruncate(descriptor_, static_cast<off_t>(size)); }) == 0;
}

void DiskFile::syncData() {
  if (retried([&] { return ::fdatasync(descriptor()); }) != 0) fail("sync", errno);
}

void DiskFile::startSync([[maybe_unused]] std::uint64_t offset,
                         [[maybe_unused]] std::uint64_t size) noexcept {
#ifdef SYNC_FILE_RANGE_WRITE
  ::sync_file_range(descriptor_, static_cast<off_t>(offset), static_cast<off_t>(size),
                    SYNC_FILE_RANGE_WRITE);
#endif
}

void DiskFile::syncAll() {
  if (retried([&] { return ::fsync(descriptor()); }) != 0) fail("sync", errno);
}

void DiskFile::suspend() {
  suspended_ = true;
  closeDescriptor();
}

bool DiskFile::tryLock(Lock lock) {
  const int kind = lock == Lock::shared ? LOCK_SH : LOCK_EX;
  if (retried([&] { return ::flock(descriptor_, kind | LOCK_NB); }) == 0) return true;
  if (errno != EWOULDBLOCK) fail("lock", errno);
  return false;
}

void DiskFile::unlock() {
  if (::flock(descriptor_, LOCK_UN) != 0) fail("unlock", errno);
}

void DiskFile::close() {
  suspended_ = false;
  closeDescriptor();
}

void DiskFile::closeDescriptor() {
  const int descriptor = std::exchange(descriptor_, -1);
  // An interrupted close has released the descriptor. A second one could close another file.
  if (descriptor >= 0 && ::close(descriptor) != 0 && errno != EINTR) fail("close", errno);
}

std::string readWholeFile(const std::filesystem::path& file) {
  const DiskFile in(file, DiskFile::Mode::readOnly);
  std::string content(static_cast<std::size_t>(in.size()), '\0');
  content.resize(in.readAt(0, content.data(), content.size()));
  return content;
}

void writeNewFile(const std::filesystem::path& file, std::string_view content) {
  DiskFile out(file, DiskFile::Mode::createNew);
  try {
    out.writeAt(0, {content});
    out.close();
  } catch (...) {
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
    throw;
  }
}

void forEachPieceOf(const ByteSource& file,
                    const std::function<void(std::string_view, std::uint64_t)>& visit) {
  constexpr std::size_t kPieceBytes = std::size_t{256} << 10U;  // stays in a near cache
  std::vector<char> piece(kPieceBytes);
  std::uint64_t at = 0;
  while (const std::size_t size = file.readAt(at, piece.data(), piece.size())) {
    visit({piece.data(), size}, at);
    at += size;
  }
}

void copyTo(DiskFile& to, const ByteSource& from) {
  forEachPieceOf(from, [&](std::string_view piece, std::uint64_t at) { to.writeAt(at, {piece}); });
}

void copyToNewFile(const ByteSource& from, const std::filesystem::path& to, bool sync) {
  DiskFile copy(to, DiskFile::Mode::createNew);
  try {
    copyTo(copy, from);
    if (sync) copy.syncData();
    copy.close();
  } catch (...) {
    std::error_code ignored;
    std::filesystem::remove(to, ignored);
    throw;
  }
}

void syncPath(const std::filesystem::path& path) {
  DiskFile(path, DiskFile::Mode::readOnly).syncAll();
}

void syncPaths(const std::vector<std::filesystem::path>& paths) {
  forEachInThreads(paths.size(), threadsForSyncing(paths.size()),
                   [&](std::size_t i, std::size_t /*thread*/) { syncPath(paths[i]); });
}

void syncDirectoryOf(const std::filesystem::path& file) {
  const std::filesystem::path parent = file.parent_path();
  syncPath(parent.empty() ? "." : parent);
}

void renamePath(const std::filesystem::path& from, const std::filesystem::path& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0) failBoth("be renamed to", from, to, errno);
}

bool exchangePaths(const std::filesystem::path& one, const std::filesystem::path& other) {
  if (::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0)
    return true;
  if (errno == EINVAL || errno == ENOSYS) return false;
  failBoth("be exchanged with", one, other, errno);
}

}  // namespace kyr
