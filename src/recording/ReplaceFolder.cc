#include "recording/ReplaceFolder.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace kyr::recording {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const char* operation, const fs::path& path, int error) {
  throw std::runtime_error(fmt::format("cannot {} {}: {}", operation, path.string(),
                                       std::generic_category().message(error)));
}

bool exchange(const fs::path& a, const fs::path& b) {
  return ::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0;
}

// The change from the old folder to the new one, which can be undone.
class Replacement {
 public:
  Replacement(fs::path fresh, fs::path target)
      : fresh_(std::move(fresh)), target_(std::move(target)) {}

  void apply(bool replaces) {
    std::error_code missing;
    const fs::file_status before = fs::status(target_, missing);
    if (fs::exists(before)) emptyOnes_ = before.permissions();
    // A rename replaces nothing and an empty folder alike, whoever makes one meanwhile.
    if (std::rename(fresh_.c_str(), target_.c_str()) == 0) return;
    if (errno != ENOTEMPTY && errno != EEXIST) fail("replace", target_, errno);
    if (!replaces) {
      throw std::runtime_error(target_.string() + ": exists, and is left as it is");
    }
    if (exchange(fresh_, target_)) {
      old_ = fresh_;
      return;
    }
    if (errno != EINVAL && errno != ENOSYS) fail("replace", target_, errno);
    replaceInTwoSteps();
  }

  // Brings the old folder back, if that is possible. What fails here has failed before.
  void undo() noexcept {
    if (old_.empty()) {
      std::rename(target_.c_str(), fresh_.c_str());
      std::error_code ignored;
      if (!emptyOnes_) return;
      fs::create_directory(target_, ignored);
      fs::permissions(target_, *emptyOnes_, ignored);
    } else if (old_ == fresh_) {
      exchange(fresh_, target_);
    } else {
      std::rename(target_.c_str(), fresh_.c_str());
      std::rename(old_.c_str(), target_.c_str());
    }
  }

  const fs::path& old() const { return old_; }

 private:
  // For file systems that cannot exchange. Between these two renames the target is missing, and
  // whole under its other name.
  void replaceInTwoSteps() {
    old_ = fresh_.string() + ".old";
    if (std::rename(target_.c_str(), old_.c_str()) != 0) fail("rename", target_, errno);
    if (std::rename(fresh_.c_str(), target_.c_str()) == 0) return;
    const int error = errno;
    std::rename(old_.c_str(), target_.c_str());
    fail("replace", target_, error);
  }

  fs::path fresh_;
  fs::path target_;
  fs::path old_;
  std::optional<fs::perms> emptyOnes_;  // what an empty folder in its place had
};

}  // namespace

fs::path replaceFolder(LockedFolder& fresh, const fs::path& target, const ReplaceOptions& options) {
  // Opened first: what may be refused is refused before anything has changed.
  DiskFile parent(target.parent_path(), DiskFile::Mode::readOnly);
  Replacement replacement(fresh.path(), target);
  replacement.apply(options.replaces);
  try {
    if (options.sync) parent.syncAll();
  } catch (...) {
    replacement.undo();
    throw;
  }
  fresh.release();
  return replacement.old();
}

}  // namespace kyr::recording
