#include "recording/FolderFiles.h"

#include <system_error>
#include <utility>
#include <vector>

namespace kyr::recording {

namespace fs = std::filesystem;

FileDigest digestFile(const fs::path& file) {
  return digestOf(DiskFile(file, DiskFile::Mode::readOnly));
}

void forEachPieceOf(const ByteSource& file,
                    const std::function<void(std::string_view, std::uint64_t)>& visit) {
  constexpr std::size_t kPieceBytes = kBlockBytes;  // stays in a near cache
  std::vector<char> piece(kPieceBytes);
  std::uint64_t at = 0;
  while (const std::size_t size = file.readAt(at, piece.data(), piece.size())) {
    visit({piece.data(), size}, at);
    at += size;
  }
}

FileDigest digestOf(const ByteSource& file) {
  FileDigester digester;
  forEachPieceOf(file, [&](std::string_view piece, std::uint64_t /*at*/) {
    digester.add(piece.data(), piece.size());
  });
  return digester.finish();
}

FileDigest copyFile(const fs::path& from, const fs::path& to) {
  const DiskFile in(from, DiskFile::Mode::readOnly);
  DiskFile out(to, DiskFile::Mode::createNew);
  FileDigester digester;
  forEachPieceOf(in, [&](std::string_view piece, std::uint64_t at) {
    digester.add(piece.data(), piece.size());
    out.writeAt(at, {piece});
  });
  out.close();
  return digester.finish();
}

void replaceTextFile(const fs::path& file, const std::string& text, bool syncs) {
  const fs::path fresh = file.string() + ".new";
  std::error_code ignored;
  fs::remove(fresh, ignored);
  writeNewFile(fresh, text);
  if (syncs) syncPath(fresh);
  renamePath(fresh, file);
  if (syncs) syncDirectoryOf(file);
}

TemporaryFolder::TemporaryFolder(fs::path path) : path_(std::move(path)) {}

TemporaryFolder::~TemporaryFolder() {
  if (path_.empty()) return;
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

fs::path replaceFolder(TemporaryFolder& fresh, const fs::path& target, bool syncs) {
  const fs::path from = fresh.path();
  // Opened first: whatever may be refused is refused before anything has changed.
  DiskFile parent(target.parent_path(), DiskFile::Mode::readOnly);
  fs::path old;
  try {
    renamePath(from, target);  // takes the place of nothing, or of an empty folder
  } catch (const std::system_error& error) {
    if (error.code() != std::errc::directory_not_empty && error.code() != std::errc::file_exists) {
      throw;
    }
    if (exchangePaths(from, target)) {
      old = from;
    } else {
      // A file system that cannot exchange: between these two renames the target is missing. It is
      // whole under its other name.
      old = from.string() + ".old";
      renamePath(target, old);
      try {
        renamePath(from, target);
      } catch (const std::system_error&) {
        std::error_code ignored;
        fs::rename(old, target, ignored);
        throw;
      }
    }
  }
  fresh.release();
  if (syncs) parent.syncAll();
  return old;
}

}  // namespace kyr::recording
