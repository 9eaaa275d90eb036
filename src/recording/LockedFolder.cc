#include "recording/LockedFolder.h"

#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "kyr/platform/FileSystem.h"

namespace kyr::recording {

namespace fs = std::filesystem;

namespace {

fs::path freeName(const fs::path& prefix) {
  const Path parent = Path::fromFilesystem(prefix.parent_path());
  return fileSystem::uniqueName(parent, toUtf16(prefix.filename().string()), u"").toFilesystem();
}

void makeFolder(const fs::path& path, fs::perms permissions) {
  if (::mkdir(path.c_str(), static_cast<mode_t>(permissions)) == 0) return;
  throw fs::filesystem_error("cannot create the folder", path,
                             std::error_code(errno, std::generic_category()));
}

}  // namespace

LockedFolder::LockedFolder(const fs::path& prefix, fs::perms permissions) {
  do {
    path_ = freeName(prefix);
    makeFolder(path_, permissions);
  } while (!lock());
}

// Before the folder has its lock, those who look for leftovers may take it for one.
bool LockedFolder::lock() {
  try {
    folder_.emplace(path_, DiskFile::Mode::readOnly);
  } catch (const std::system_error& error) {
    if (error.code() == std::errc::no_such_file_or_directory) return false;
    throw;
  }
  try {
    if (!folder_->tryLock(DiskFile::Lock::exclusive)) return false;
  } catch (const std::system_error&) {
    return true;  // the file system has no locks of folders
  }
  return fs::exists(path_);
}

LockedFolder::~LockedFolder() {
  if (path_.empty()) return;
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

}  // namespace kyr::recording
