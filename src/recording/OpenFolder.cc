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

DiskFile openDirectory(const fs::path& path) {
  try {
    return {path, DiskFile::Mode::readOnly};
  } catch (const std::system_error& error) {
    if (!isMissing(error)) throw;
    throw std::runtime_error(path.string() + ": no such folder");
  }
}

}  // namespace

OpenFolder::OpenFolder(fs::path folder) : path_(std::move(folder)), folder_(openDirectory(path_)) {
  try {
    storage_ = std::make_unique<DiskFile>(folder_, kStorageFolder, DiskFile::Entry::directory);
  } catch (const std::system_error& error) {
    if (!isMissing(error)) throw;
  }
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

std::unique_ptr<DiskFile> OpenFolder::open(const std::string& name) const {
  return std::make_unique<DiskFile>(folder_, name, DiskFile::Entry::file);
}

std::uint64_t OpenFolder::sizeOfStored(const std::string& name) const {
  return openStored(name)->size();
}

std::unique_ptr<DiskFile> OpenFolder::openStored(const std::string& name) const {
  if (storage_) return std::make_unique<DiskFile>(*storage_, name, DiskFile::Entry::file);
  return std::make_unique<DiskFile>(folder_, std::string(kStorageFolder) + "/" + name,
                                    DiskFile::Entry::file);
}

}  // namespace kyr::recording
