#include "support/FaultyDisk.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>

namespace kyr::test::faultyDisk {

namespace {

struct State {
  Plan plan;
  bool on = false;
  std::atomic<int> calls{0};  // several threads may sync files
} state;

bool fails() {
  if (!state.on) return false;
  const int after = ++state.calls - state.plan.failAt;
  if (state.plan.failAt == 0 || after < 0 || after >= state.plan.failures) return false;
  errno = state.plan.error;
  return true;
}

bool opensFail() { return state.plan.alsoOpening && fails(); }

long fileTick = 1;  // [ns]

int withCoarseTimes(int result, struct stat* status) {
  if (result != 0) return result;
  status->st_mtim.tv_nsec -= status->st_mtim.tv_nsec % fileTick;
  status->st_ctim.tv_nsec -= status->st_ctim.tv_nsec % fileTick;
  return result;
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void start(const Plan& plan) {
  state.plan = plan;
  state.on = true;
  state.calls = 0;
}

int stop() {
  state.on = false;
  return state.calls;
}

CoarseFileTimes::CoarseFileTimes(long tickNanoseconds) { fileTick = tickNanoseconds; }

CoarseFileTimes::~CoarseFileTimes() { fileTick = 1; }

}  // namespace kyr::test::faultyDisk

using kyr::test::faultyDisk::fails;
using kyr::test::faultyDisk::next;
using kyr::test::faultyDisk::opensFail;
using kyr::test::faultyDisk::state;
using kyr::test::faultyDisk::withCoarseTimes;

extern "C" {

ssize_t pwritev(int file, const iovec* pieces, int count, off_t offset) {
  const auto call = next<decltype(pwritev)>("pwritev");
  const bool failing = fails();
  if (state.on && state.plan.shortWrites && pieces->iov_len > 1) {
    const iovec half{pieces->iov_base, pieces->iov_len / 2};
    const ssize_t written = call(file, &half, 1, offset);
    if (!failing) return written;
    errno = state.plan.error;
  }
  return failing ? -1 : call(file, pieces, count, offset);
}

ssize_t pread(int file, void* out, size_t size, off_t offset) {
  return fails() ? -1 : next<decltype(pread)>("pread")(file, out, size, offset);
}

int ftruncate(int file, off_t size) noexcept {
  return fails() ? -1 : next<int(int, off_t)>("ftruncate")(file, size);
}

int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  return opensFail() ? -1 : next<int(const char*, int, mode_t)>("open")(path, flags, mode);
}

// A disk may find out late that it is full. The descriptor is closed all the same.
int close(int file) {
  const int result = next<decltype(close)>("close")(file);
  return opensFail() ? -1 : result;
}

int fdatasync(int file) { return fails() ? -1 : next<decltype(fdatasync)>("fdatasync")(file); }

int stat(const char* path, struct stat* status) noexcept {
  using Stat = int(const char*, struct stat*);
  return withCoarseTimes(next<Stat>("stat")(path, status), status);
}

int fstat(int file, struct stat* status) noexcept {
  using Stat = int(int, struct stat*);
  return withCoarseTimes(next<Stat>("fstat")(file, status), status);
}

int fsync(int file) { return fails() ? -1 : next<decltype(fsync)>("fsync")(file); }

}  // extern "C"
