// A library to be loaded before all others (LD_PRELOAD). It stands between a program and the files
// below the folder KYR_DISK_ROOT.
//
// With KYR_DISK_JOURNAL it writes down each call that changes them, in the order of the calls, and
// what the program prints. powercut_test.py makes of that what a power cut may leave.
//
// With KYR_DISK_FAIL_AT=N the Nth call that opens, reads, changes or syncs one of them fails with
// the error number KYR_DISK_ERROR. With KYR_DISK_COUNT the number of these calls is written to that
// file when the process ends.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace {

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

class Disk {
 public:
  static Disk& instance() {
    static Disk* const disk = new Disk;  // calls go on while the process ends
    return *disk;
  }

  std::recursive_mutex& mutex() { return mutex_; }
  bool isWatched() const { return !root_.empty(); }

  bool holds(int folder, const char* path) const {
    if (!isWatched()) return false;
    if (path[0] != '/' && folder != AT_FDCWD) return holds(folder);
    char whole[PATH_MAX];
    std::string name = path;
    if (path[0] != '/' && ::getcwd(whole, sizeof(whole)) != nullptr) {
      name = std::string(whole) + "/" + path;
    }
    return name.compare(0, root_.size(), root_) == 0;
  }
  bool holds(int file) const {
    if (!isWatched()) return false;
    char target[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(file);
    const ssize_t size = ::syscall(SYS_readlink, link.c_str(), target, sizeof(target));
    return size > 0 && std::string(target, std::size_t(size)).compare(0, root_.size(), root_) == 0;
  }

  // Whether this call is to fail. Calls that change names are not interrupted.
  bool fails(bool mayBeInterrupted = true) {
    if (error_ == EINTR && !mayBeInterrupted) return false;
    ++calls_;
    const char* const counts = std::getenv("KYR_DISK_COUNT");
    if (counts != nullptr) writeCount(counts);
    if (calls_ != failAt_) return false;
    errno = error_;
    return true;
  }

  void note(const std::string& line, const void* data = nullptr, std::size_t size = 0) {
    if (journal_ < 0) return;
    const std::string text = line + "\n";
    put(text.data(), text.size());
    put(data, size);
  }

 private:
  Disk() {
    if (const char* const root = std::getenv("KYR_DISK_ROOT")) root_ = root;
    if (const char* const at = std::getenv("KYR_DISK_FAIL_AT")) failAt_ = std::atoi(at);
    if (const char* const error = std::getenv("KYR_DISK_ERROR")) error_ = std::atoi(error);
    if (const char* const journal = std::getenv("KYR_DISK_JOURNAL")) {
      journal_ = int(::syscall(SYS_openat, AT_FDCWD, journal,
                               O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
    }
  }

  void put(const void* data, std::size_t size) const {
    const char* from = static_cast<const char*>(data);
    while (size > 0) {
      const ssize_t written = ::syscall(SYS_write, journal_, from, size);
      if (written <= 0) std::abort();
      from += written;
      size -= std::size_t(written);
    }
  }

  void writeCount(const char* name) const {
    const long file = ::syscall(SYS_openat, AT_FDCWD, name, O_WRONLY | O_CREAT, 0666);
    const std::string text = std::to_string(calls_) + "\n";
    ::syscall(SYS_pwrite64, file, text.data(), text.size(), 0);
    ::syscall(SYS_close, file);
  }

  std::recursive_mutex mutex_;
  std::string root_;
  int journal_ = -1;
  int calls_ = 0;
  int failAt_ = 0;
  int error_ = EIO;
};

Disk& disk() { return Disk::instance(); }

using Lock = std::lock_guard<std::recursive_mutex>;

std::string inodeOf(int file) {
  struct stat status {};
  return ::fstat(file, &status) == 0 ? std::to_string(status.st_ino) : "0";
}

std::string inodeOf(int folder, const std::string& path) {
  struct stat status {};
  const bool found = ::fstatat(folder, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
  return found ? std::to_string(status.st_ino) : "0";
}

// "<inode of the folder> <name>" of an entry.
std::string entryOf(int folder, const char* path) {
  std::string whole = path;
  while (whole.size() > 1 && whole.back() == '/') whole.pop_back();
  const std::size_t slash = whole.rfind('/');
  const std::string parent = slash == std::string::npos ? "." : whole.substr(0, slash + 1);
  struct stat status {};
  if (::fstatat(folder, parent.c_str(), &status, 0) != 0) return "0 ?";
  return std::to_string(status.st_ino) + " " +
         (slash == std::string::npos ? whole : whole.substr(slash + 1));
}

int openFile(int folder, const char* path, int flags, mode_t mode) {
  const Lock lock(disk().mutex());
  const bool holds = disk().holds(folder, path);
  if (holds && disk().fails((flags & O_DIRECTORY) == 0)) return -1;
  const bool isNew = holds && (flags & O_CREAT) != 0 && inodeOf(folder, path) == "0";
  const int file = next<int(int, const char*, int, mode_t)>("openat")(folder, path, flags, mode);
  if (file < 0 || !holds) return file;
  if (isNew) disk().note("create " + entryOf(folder, path) + " " + inodeOf(file) + " file");
  if ((flags & O_TRUNC) != 0) disk().note("cut " + inodeOf(file) + " 0");
  return file;
}

void noteWrite(int file, off_t offset, const void* data, ssize_t size) {
  if (size <= 0) return;
  disk().note("write " + inodeOf(file) + " " + std::to_string(offset) + " " + std::to_string(size),
              data, std::size_t(size));
}

// Writes at an offset, or where the file stands if that is negative.
template <typename Call>
ssize_t writing(int file, off_t offset, const void* data, Call&& call) {
  const Lock lock(disk().mutex());
  if (file == STDOUT_FILENO && disk().isWatched()) {
    const ssize_t size = call();
    if (size > 0) disk().note("print " + std::to_string(size), data, std::size_t(size));
    return size;
  }
  if (!disk().holds(file)) return call();
  if (disk().fails()) return -1;
  const off_t at = offset >= 0 ? offset : ::lseek(file, 0, SEEK_CUR);
  const ssize_t size = call();
  noteWrite(file, at, data, size);
  return size;
}

template <typename Call>
int syncing(int file, Call&& call) {
  const Lock lock(disk().mutex());
  if (!disk().holds(file)) return call();
  if (disk().fails()) return -1;
  disk().note("sync " + inodeOf(file));
  return 0;  // nothing gets lost here, so there is nothing to wait for
}

// A call that changes entries of folders, and what is written down if it succeeds.
template <typename Call>
int changing(bool holds, const std::string& line, Call&& call) {
  if (!holds) return call();
  if (disk().fails(/*mayBeInterrupted=*/false)) return -1;
  const int result = call();
  if (result == 0) disk().note(line);
  return result;
}

}  // namespace

extern "C" {

int openat(int folder, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return openFile(folder, path, flags, mode);
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return openFile(AT_FDCWD, path, flags, mode);
}

ssize_t pread(int file, void* out, size_t size, off_t offset) {
  const Lock lock(disk().mutex());
  if (disk().holds(file) && disk().fails()) return -1;
  return next<decltype(pread)>("pread")(file, out, size, offset);
}

ssize_t write(int file, const void* data, size_t size) {
  return writing(file, -1, data, [&] { return next<decltype(write)>("write")(file, data, size); });
}

ssize_t pwrite(int file, const void* data, size_t size, off_t offset) {
  return writing(file, offset, data,
                 [&] { return next<decltype(pwrite)>("pwrite")(file, data, size, offset); });
}

ssize_t pwritev(int file, const iovec* pieces, int count, off_t offset) {
  std::string all;
  for (int i = 0; i < count; ++i)
    all.append(static_cast<char*>(pieces[i].iov_base), pieces[i].iov_len);
  return pwrite(file, all.data(), all.size(), offset);
}

ssize_t writev(int file, const iovec* pieces, int count) {
  std::string all;
  for (int i = 0; i < count; ++i)
    all.append(static_cast<char*>(pieces[i].iov_base), pieces[i].iov_len);
  return write(file, all.data(), all.size());
}

int ftruncate(int file, off_t size) noexcept {
  const Lock lock(disk().mutex());
  if (disk().holds(file) && disk().fails()) return -1;
  const int result = next<int(int, off_t)>("ftruncate")(file, size);
  if (result == 0) disk().note("cut " + inodeOf(file) + " " + std::to_string(size));
  return result;
}

int fsync(int file) {
  return syncing(file, [&] { return next<decltype(fsync)>("fsync")(file); });
}

int fdatasync(int file) {
  return syncing(file, [&] { return next<decltype(fdatasync)>("fdatasync")(file); });
}

int mkdirat(int folder, const char* path, mode_t mode) noexcept {
  const Lock lock(disk().mutex());
  const bool holds = disk().holds(folder, path);
  if (holds && disk().fails(/*mayBeInterrupted=*/false)) return -1;
  const int result = next<int(int, const char*, mode_t)>("mkdirat")(folder, path, mode);
  if (result == 0 && holds) {
    disk().note("create " + entryOf(folder, path) + " " + inodeOf(folder, path) + " folder");
  }
  return result;
}

int mkdir(const char* path, mode_t mode) noexcept { return mkdirat(AT_FDCWD, path, mode); }

int unlinkat(int folder, const char* path, int flags) noexcept {
  const Lock lock(disk().mutex());
  return changing(disk().holds(folder, path), "remove " + entryOf(folder, path), [&] {
    return next<int(int, const char*, int)>("unlinkat")(folder, path, flags);
  });
}

int unlink(const char* path) noexcept { return unlinkat(AT_FDCWD, path, 0); }
int rmdir(const char* path) noexcept { return unlinkat(AT_FDCWD, path, AT_REMOVEDIR); }

int remove(const char* path) noexcept {
  struct stat status {};
  const bool isFolder = ::lstat(path, &status) == 0 && S_ISDIR(status.st_mode);
  return unlinkat(AT_FDCWD, path, isFolder ? AT_REMOVEDIR : 0);
}

int linkat(int from, const char* path, int to, const char* other, int flags) noexcept {
  const Lock lock(disk().mutex());
  return changing(disk().holds(to, other), "link " + entryOf(to, other) + " " + inodeOf(from, path),
                  [&] {
                    using Call = int(int, const char*, int, const char*, int);
                    return next<Call>("linkat")(from, path, to, other, flags);
                  });
}

int link(const char* path, const char* other) noexcept {
  return linkat(AT_FDCWD, path, AT_FDCWD, other, 0);
}

int renameat2(int from, const char* path, int to, const char* other, unsigned flags) noexcept {
  const Lock lock(disk().mutex());
  const std::string line = std::string(flags != 0 ? "exchange " : "rename ") + entryOf(from, path) +
                           " " + entryOf(to, other);
  return changing(disk().holds(to, other), line, [&] {
    using Call = int(int, const char*, int, const char*, unsigned);
    return next<Call>("renameat2")(from, path, to, other, flags);
  });
}

int renameat(int from, const char* path, int to, const char* other) noexcept {
  return renameat2(from, path, to, other, 0);
}

int rename(const char* path, const char* other) noexcept {
  return renameat2(AT_FDCWD, path, AT_FDCWD, other, 0);
}

}  // extern "C"
