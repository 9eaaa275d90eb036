#include "cli/TemporaryFolder.h"

#include <filesystem>
#include <system_error>

#include "kyr/platform/FileSystem.h"

namespace kyr::tool {

namespace fs = std::filesystem;

TemporaryFolder::TemporaryFolder()
    : path_(fileSystem::uniqueName(fileSystem::temporaryDirectory(), u"kyr-", u"")) {
  fs::create_directory(path_.toFilesystem());
  fs::permissions(path_.toFilesystem(), fs::perms::owner_all);
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  fs::remove_all(path_.toFilesystem(), ignored);
}

}  // namespace kyr::tool
