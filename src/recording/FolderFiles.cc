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

}  // namespace kyr::recording
