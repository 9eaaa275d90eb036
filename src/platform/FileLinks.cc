#include "platform/FileLinks.h"

#include <system_error>

namespace kyr {

namespace fs = std::filesystem;

namespace {

bool isLinked(const fs::path& path) {
  std::error_code missing;
  return fs::is_regular_file(fs::symlink_status(path, missing)) &&
         fs::hard_link_count(path, missing) > 1 && !missing;
}

}  // namespace

void copyIfLinked(const fs::path& path) {
  if (!isLinked(path)) return;
  const fs::path copy = path.string() + ".copy";
  fs::copy_file(path, copy, fs::copy_options::overwrite_existing);
  fs::rename(copy, path);
}

void removeIfLinked(const fs::path& path) {
  if (isLinked(path)) fs::remove(path);
}

}  // namespace kyr
