#include "recording/FolderFiles.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "recording/Checksum.h"

namespace kyr::recording {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const char* operation, const fs::path& path, int error) {
  throw std::runtime_error(fmt::format("cannot {} {}: {}", operation, path.string(),
                                       std::generic_category().message(error)));
}

class Descriptor {
 public:
  Descriptor(fs::path path, int flags, mode_t mode = 0)
      : path_(std::move(path)), fd_(::open(path_.c_str(), flags | O_CLOEXEC, mode)) {
    if (fd_ < 0) fail((flags & O_CREAT) != 0 ? "create" : "open", path_, errno);
  }
  ~Descriptor() { ::close(fd_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  std::size_t read(std::vector<char>& buffer) const {
    for (;;) {
      const ssize_t got = ::read(fd_, buffer.data(), buffer.size());
      if (got >= 0) return static_cast<std::size_t>(got);
      if (errno != EINTR) fail("read", path_, errno);
    }
  }

  void write(const char* data, std::size_t size) const {
    while (size > 0) {
      const ssize_t put = ::write(fd_, data, size);
      if (put < 0 && errno != EINTR) fail("write", path_, errno);
      if (put > 0) {
        data += put;
        size -= static_cast<std::size_t>(put);
      }
    }
  }

  void sync() const {
    if (::fsync(fd_) != 0) fail("flush", path_, errno);
  }

 private:
  fs::path path_;
  int fd_;
};

constexpr int kCreateNew = O_WRONLY | O_CREAT | O_EXCL;
constexpr mode_t kFileMode = 0666;

// Reads a file to its end, handing each piece to \p take.
template <typename Take>
void forEachPiece(const fs::path& file, Take&& take) {
  constexpr std::size_t kPieceBytes = std::size_t{1} << 20U;
  const Descriptor in(file, O_RDONLY);
  std::vector<char> piece(kPieceBytes);
  while (const std::size_t size = in.read(piece)) take(piece.data(), size);
}

}  // namespace

FileDigest digestFile(const fs::path& file) {
  FileDigest digest;
  Checksum checksum;
  forEachPiece(file, [&](const char* data, std::size_t size) {
    checksum.add(data, size);
    digest.size += size;
  });
  digest.checksum = checksum.digits();
  return digest;
}

void forEachPieceOf(const DiskFile& file,
                    const std::function<void(std::string_view, std::uint64_t)>& visit) {
  constexpr std::size_t kPieceBytes = std::size_t{256} << 10U;  // stays in a near cache
  std::vector<char> piece(kPieceBytes);
  std::uint64_t at = 0;
  while (const std::size_t size = file.readAt(at, piece.data(), piece.size())) {
    visit({piece.data(), size}, at);
    at += size;
  }
}

FileDigest digestOf(const DiskFile& file) {
  FileDigest digest;
  Checksum checksum;
  forEachPieceOf(file, [&](std::string_view piece, std::uint64_t /*at*/) {
    checksum.add(piece.data(), piece.size());
    digest.size += piece.size();
  });
  digest.checksum = checksum.digits();
  return digest;
}

FileDigest copyFile(const fs::path& from, const fs::path& to) {
  const Descriptor out(to, kCreateNew, kFileMode);
  FileDigest digest;
  Checksum checksum;
  forEachPiece(from, [&](const char* data, std::size_t size) {
    checksum.add(data, size);
    digest.size += size;
    out.write(data, size);
  });
  digest.checksum = checksum.digits();
  return digest;
}

std::string readTextFile(const fs::path& file) {
  const DiskFile in(file, DiskFile::Mode::readOnly);
  std::string text(static_cast<std::size_t>(in.size()), '\0');
  text.resize(in.readAt(0, text.data(), text.size()));
  return text;
}

void writeTextFile(const fs::path& file, const std::string& text) {
  Descriptor(file, kCreateNew, kFileMode).write(text.data(), text.size());
}

void replaceTextFile(const fs::path& file, const std::string& text, bool syncs) {
  const fs::path fresh = file.string() + ".new";
  std::error_code ignored;
  fs::remove(fresh, ignored);
  writeTextFile(fresh, text);
  if (syncs) syncToDisk(fresh);
  if (std::rename(fresh.c_str(), file.c_str()) != 0) fail("replace", file, errno);
  if (syncs) syncToDisk(file.parent_path());
}

void syncToDisk(const fs::path& path) { Descriptor(path, O_RDONLY).sync(); }

TemporaryFolder::TemporaryFolder(fs::path path) : path_(std::move(path)) {}

TemporaryFolder::~TemporaryFolder() {
  if (path_.empty()) return;
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

fs::path replaceFolder(TemporaryFolder& fresh, const fs::path& target, bool syncs) {
  const fs::path from = fresh.path();
  // Opened first: whatever may be refused is refused before anything has changed.
  const Descriptor parent(target.parent_path(), O_RDONLY);
  fs::path old;
  // A rename replaces nothing and an empty folder alike; a folder with content is exchanged.
  if (std::rename(from.c_str(), target.c_str()) != 0) {
    if (errno != ENOTEMPTY && errno != EEXIST) fail("replace", target, errno);
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE) == 0) {
      old = from;
    } else {
      if (errno != EINVAL && errno != ENOSYS) fail("replace", target, errno);
      // A file system that cannot exchange: between these two renames the target is missing, and
      // whole under its other name.
      old = from.string() + ".old";
      if (std::rename(target.c_str(), old.c_str()) != 0) fail("rename", target, errno);
      if (std::rename(from.c_str(), target.c_str()) != 0) {
        const int error = errno;
        std::rename(old.c_str(), target.c_str());
        fail("replace", target, error);
      }
    }
  }
  fresh.release();
  if (syncs) parent.sync();
  return old;
}

}  // namespace kyr::recording
