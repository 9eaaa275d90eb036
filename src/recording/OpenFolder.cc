#include "recording/OpenFolder.h"

#include <stdexcept>
#include <system_error>
#include <utility>

#include "recording/RecordingFolder.h"

namespace kyr::recording {

namespace fs = std::filesystem;

namespace {

bool isMissing(const std::system_error& error) {
  return error.code() == std::errc::no_such_file_or_directory ||
         error.code() == std::errc::not_a_directory;
}

bool isNoFile(const std::system_error& error) {
  return isMissing(error) || error.code() == std::errc::is_a_directory ||
         error.code() == std::errc::not_supported;
}

Folder openRoot(const fs::path& path, Links links) {
  try {
    return Folder(path, links);
  } catch (const std::system_error& error) {
    if (!isMissing(error)) throw;
    const bool isThere = error.code() == std::errc::not_a_directory;
    throw std::runtime_error(path.string() +
                             (isThere ? ": not a recording: it is no folder" : ": no such folder"));
  }
}

}  // namespace

OpenFolder::OpenFolder(const fs::path& folder, Links links) : OpenFolder(openRoot(folder, links)) {}

OpenFolder::OpenFolder(Folder folder) : folder_(std::move(folder)) {
  try {
    storage_ = folder_.folder(kStorageFolder);
  } catch (const std::system_error& error) {
    if (!isMissing(error)) throw;
  }
}

bool OpenFolder::isReplaced() const {
  const auto now = FileState::ofName(path());
  return now && !now->isSameFile(state());
}

bool OpenFolder::has(const std::string& name) const {
  try {
    open(name);
    return true;
  } catch (const std::system_error& error) {
    if (isNoFile(error)) return false;
    throw;
  }
}

std::string OpenFolder::readText(const std::string& name) const {
  const auto file = open(name);
  std::string text(static_cast<std::size_t>(file->size()), '\0');
  text.resize(file->readAt(0, text.data(), text.size()));
  return text;
}

bool OpenFolder::hasStored(const std::string& name) const {
  return storage_ && storage_->has(name);
}

std::uint64_t OpenFolder::sizeOfStored(const std::string& name) const {
  return storage_ ? storage_->sizeOf(name) : openStored(name)->size();
}

std::unique_ptr<DiskFile> OpenFolder::openStored(const std::string& name) const {
  // Opening it again tells what is wrong with it.
  return (storage_ ? *storage_ : folder_.folder(kStorageFolder)).open(name);
}

std::vector<std::string> OpenFolder::storedNames() const {
  return storage_ ? storage_->names() : std::vector<std::string>();
}

}  // namespace kyr::recording
