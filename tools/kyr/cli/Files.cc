#include "cli/Files.h"

#include <map>
#include <system_error>

namespace kyr::tool {

namespace fs = std::filesystem;

fs::path wholePath(const std::string& name) {
  const fs::path path = fs::absolute(name).lexically_normal();
  return path.has_filename() ? path : path.parent_path();
}

std::vector<std::string> namesOfRuns(const std::vector<std::string>& folders) {
  std::vector<std::string> names;
  std::map<std::string, int> uses;
  for (const std::string& folder : folders) {
    names.push_back(wholePath(folder).filename().string());
    ++uses[names.back()];
  }
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (uses[names[i]] > 1) names[i] = folders[i];
  }
  return names;
}

std::uint64_t bytesBelow(const fs::path& path) {
  std::error_code ignored;
  if (!fs::is_directory(path)) return fs::file_size(path);
  std::uint64_t bytes = 0;
  for (fs::recursive_directory_iterator it(path, ignored), end; it != end; it.increment(ignored)) {
    const bool isFile = fs::is_regular_file(it->symlink_status(ignored));
    const std::uintmax_t size = isFile ? it->file_size(ignored) : 0;
    if (!ignored) bytes += size;
  }
  return bytes;
}

}  // namespace kyr::tool
