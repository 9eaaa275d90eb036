#include "platform/Folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>

namespace kyr {

namespace {

constexpr mode_t kFolderPermissions = 0777;  // the process's mask takes some away

}  // namespace

Folder::Folder(const std::filesystem::path& path, Links links)
    : disk_(std::make_shared<DiskFile>(path, DiskFile::Mode::readOnly)), links_(links) {
  if (disk_->isFolder()) return;
  errno = ENOTDIR;
  fail("", "open the folder");
}

void Folder::fail(const std::string& name, const char* what) const {
  throw std::system_error(
      errno, std::generic_category(),
      fmt::format("{}: cannot {}", (name.empty() ? path() : path() / name).string(), what));
}

Folder Folder::folder(const std::string& name) const {
  return {std::make_shared<DiskFile>(*disk_, name, DiskFile::Entry::folder,
                                     DiskFile::Mode::readOnly, links_),
          links_};
}

Folder Folder::makeFolder(const std::string& name) const {
  if (::mkdirat(disk_->descriptor(), name.c_str(), kFolderPermissions) != 0 && errno != EEXIST) {
    fail(name, "make the folder");
  }
  return folder(name);
}

std::unique_ptr<DiskFile> Folder::open(const std::string& name, DiskFile::Mode mode) const {
  const Links links = mode == DiskFile::Mode::readOnly ? links_ : Links::refused;
  return std::make_unique<DiskFile>(*disk_, name, DiskFile::Entry::file, mode, links);
}

Folder::Entry Folder::entry(const std::string& name) const {
  struct stat status {};
  if (::fstatat(disk_->descriptor(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return Entry::none;
    fail(name, "be looked at");
  }
  if (S_ISREG(status.st_mode)) return Entry::file;
  if (S_ISDIR(status.st_mode)) return Entry::folder;
  return S_ISLNK(status.st_mode) ? Entry::link : Entry::other;
}

std::uint64_t Folder::sizeOf(const std::string& name) const {
  struct stat status {};
  const int result = ::fstatat(disk_->descriptor(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW);
  // Opening anything else tells what is wrong with it.
  if (result != 0 || !S_ISREG(status.st_mode)) return open(name)->size();
  return static_cast<std::uint64_t>(status.st_size);
}

std::vector<std::string> Folder::names() const {
  // A descriptor of its own: reading the names moves its position.
  const int descriptor = ::openat(disk_->descriptor(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(
      descriptor < 0 ? nullptr : ::fdopendir(descriptor), ::closedir);
  if (!listing) {
    const int error = errno;
    if (descriptor >= 0) ::close(descriptor);
    errno = error;
    fail("", "list the folder");
  }
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* const entry = ::readdir(listing.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
    errno = 0;
  }
  if (errno != 0) fail("", "list the folder");
  std::sort(names.begin(), names.end());
  return names;
}

bool Folder::remove(const std::string& name) const {
  if (::unlinkat(disk_->descriptor(), name.c_str(), 0) == 0) return true;
  if (errno == ENOENT) return false;
  fail(name, "remove the file");
}

void Folder::tryRemove(const std::string& name) const noexcept {
  ::unlinkat(disk_->descriptor(), name.c_str(), 0);
}

void Folder::rename(const std::string& from, const Folder& folder, const std::string& to) const {
  if (::renameat(disk_->descriptor(), from.c_str(), folder.disk_->descriptor(), to.c_str()) != 0) {
    fail(from, ("be renamed to " + (folder.path() / to).string()).c_str());
  }
}

bool Folder::link(const std::string& name, const Folder& folder, const std::string& other) const {
  return ::linkat(disk_->descriptor(), name.c_str(), folder.disk_->descriptor(), other.c_str(),
                  0) == 0;
}

void Folder::sync() const { disk_->syncAll(); }

void copyIfLinked(const Folder& folder, const std::string& name) {
  const auto from = folder.open(name);
  if (!from->hasOtherNames()) return;
  const std::string copy = name + ".copy";
  folder.remove(copy);
  try {
    const auto to = folder.open(copy, DiskFile::Mode::createNew);
    copyTo(*to, *from);
    // After a power cut the name must not stand for a copy that is not whole.
    to->syncData();
    to->close();
    folder.rename(copy, folder, name);
  } catch (...) {
    folder.tryRemove(copy);
    throw;
  }
}

}  // namespace kyr
