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

void removeIfLinked(const fs::path& path) {
  if (isLinked(path)) fs::remove(path);
}

}  // namespace kyr
