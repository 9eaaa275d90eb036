#include "recording/FolderFiles.h"

#include <system_error>
#include <utility>
#include <vector>

namespace kyr::recording {

namespace fs = std::filesystem;

FileDigest digestFile(const fs::path& file) {
  return digestOf(DiskFile(file, DiskFile::Mode::readOnly));
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
  try {
    if (syncs) syncPath(fresh);
    renamePath(fresh, file);
  } catch (...) {
    fs::remove(fresh, ignored);
    throw;
  }
  if (syncs) syncDirectoryOf(file);
}

}  // namespace kyr::recording
