#include "kyr/platform/FileSystem.h"

#include <fmt/format.h>

#include <cstddef>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "kyr/platform/CryptoService.h"

namespace kyr {

namespace fs = std::filesystem;

namespace fileSystem {

bool exists(const Path& path) { return fs::exists(path.toFilesystem()); }

bool isDirectory(const Path& path) { return fs::is_directory(path.toFilesystem()); }

void createOneDirectory(const Path& path) { fs::create_directory(path.toFilesystem()); }

void removeFile(const Path& path) { fs::remove(path.toFilesystem()); }

Path currentDirectory() { return Path::fromFilesystem(fs::current_path()); }

Path temporaryDirectory() {
  std::error_code error;
  const fs::path directory = fs::temp_directory_path(error);
  if (error) {
    const char* named = std::getenv("TMPDIR");
    throw fs::filesystem_error("no directory for temporary files", named ? named : "/tmp", error);
  }
  return Path::fromFilesystem(directory);
}

Path uniqueName(const Path& directory, const std::u16string& prefix, const std::u16string& suffix) {
  constexpr std::size_t kRandomBytes = 8;
  for (;;) {
    std::string digits;
    for (const unsigned char byte : CryptoService::randomBytes(kRandomBytes)) {
      digits += fmt::format("{:02x}", byte);
    }
    Path candidate = directory.join(Path(prefix + toUtf16(digits) + suffix));
    if (!exists(candidate)) return candidate;
  }
}

}  // namespace fileSystem

DirectoryEntry::DirectoryEntry(fs::directory_entry entry) : entry_(std::move(entry)) {}

DirectoryEntry::Type DirectoryEntry::type() const noexcept {
  std::error_code ignored;
  const fs::file_status status = entry_.status(ignored);
  if (fs::is_directory(status)) return Type::directory;
  return fs::is_regular_file(status) ? Type::file : Type::other;
}

Path DirectoryEntry::fullPath() const { return Path::fromFilesystem(entry_.path()); }

Path DirectoryEntry::fileName() const { return Path::fromFilesystem(entry_.path().filename()); }

directory_iterator::directory_iterator(const Path& directory)
    : position_(directory.toFilesystem()) {}

void directory_iterator::throwIfAtEnd(const char* operation) const {
  if (position_ == fs::directory_iterator()) {
    throw fs::filesystem_error(fmt::format("{} past the end of a directory walk", operation),
                               std::make_error_code(std::errc::invalid_argument));
  }
}

DirectoryEntry directory_iterator::entry() const {
  throwIfAtEnd("reading an entry");
  return DirectoryEntry(*position_);
}

directory_iterator& directory_iterator::operator++() {
  throwIfAtEnd("stepping");
  ++position_;
  return *this;
}

}  // namespace kyr
