#include "kyr/recording/WorkingFolder.h"

#include <filesystem>
#include <utility>

#include "kyr/platform/FileSystem.h"
#include "recording/LockedFolder.h"
#include "recording/RecordingFolder.h"

namespace kyr::recording {

class WorkingFolder::Impl : public LockedFolder {
  using LockedFolder::LockedFolder;
};

WorkingFolder::WorkingFolder(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
WorkingFolder::~WorkingFolder() = default;
WorkingFolder::WorkingFolder(WorkingFolder&&) noexcept = default;
WorkingFolder& WorkingFolder::operator=(WorkingFolder&&) noexcept = default;

WorkingFolder WorkingFolder::beside(const Path& folder) {
  const std::filesystem::path whole = canonicalFolder(folder.toFilesystem());
  return WorkingFolder(
      std::make_unique<Impl>(whole.string() + kImportingInfix, std::filesystem::perms::owner_all));
}

WorkingFolder WorkingFolder::temporary() {
  const std::filesystem::path directory = fileSystem::temporaryDirectory().toFilesystem();
  return WorkingFolder(
      std::make_unique<Impl>(directory / kTemporaryPrefix, std::filesystem::perms::owner_all));
}

Path WorkingFolder::path() const { return Path::fromFilesystem(impl_->path()); }

}  // namespace kyr::recording
